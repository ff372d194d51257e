#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "routing/HashPage.h"

namespace MessageRouter {

// A map of byte strings in two files, in the format of the published sdbm: NAME.pag has the pages,
// NAME.dir has one bit for each node of the tree of hash bits, set where the node has been split.
// Files of that library can be used here, and ours there.
//
// Whatever is in the files, an operation ends, with a result or a failure: never with a crash or an
// endless walk. Nothing is synced. A process that is killed within a store, and a disk that is full
// then, leave what was stored before where it is found, what was to be replaced too.
//
// A null handle and an empty key are refused with EINVAL in errno, a change through a handle that
// only reads with EPERM. Results that are views stay good until the next call.
// Threads: one at a time.
inline constexpr std::size_t DBLKSIZ = 4096;  // bytes of a block of the directory
inline constexpr int SPLTMAX = 10;            // splits for the sake of one pair

struct HashDatabase;
struct HashDatabaseCloser {
  void operator()(HashDatabase* database) const;
};
// An open handle and its owner: the files are closed with it, or by sdbm_close.
using HashDatabasePtr = std::unique_ptr<HashDatabase, HashDatabaseCloser>;

// For sdbm_open; one of the first three, with or without the others.
enum HashDatabaseFlags : unsigned {
  kReadOnly = 0,
  kWriteOnly = 1,  // as kReadWrite: a page must be read before it is changed
  kReadWrite = 2,
  kCreate = 4,
  kTruncate = 8,
};
enum HashDatabaseStore : int { kInsert = 0, kReplace = 1 };

// Null, with the system's number in errno, if the files can't be opened.
HashDatabasePtr sdbm_open(const std::string& name, unsigned flags, unsigned mode);
void sdbm_close(HashDatabasePtr database);
// From now on no page is split once the files take so many bytes on the disk: a pair that needs a
// split fails then, with EFBIG. Pairs that lie far down the tree take many times their own size.
void sdbm_limit(HashDatabase* database, std::uint64_t bytes);
std::optional<std::string_view> sdbm_fetch(HashDatabase* database, std::string_view key);
// 0; 1 if the key is there and was not to be replaced; -1 for a failure.
int sdbm_store(HashDatabase* database, std::string_view key, std::string_view value, int flags);
int sdbm_delete(HashDatabase* database, std::string_view key);  // 0; -1 also if there is none
// All keys, page by page; damaged pages are passed over, and show in sdbm_error. A walk during
// which something is stored or deleted may miss keys or meet them twice.
std::optional<std::string_view> sdbm_firstkey(HashDatabase* database);
std::optional<std::string_view> sdbm_nextkey(HashDatabase* database);
// A walk that may pause, and that needs nothing of the handle: appends the keys of the first page
// at `page` or behind it, and moves `page` on. False once there is none. Whatever is stored or
// deleted between two calls, a key that is there all the time is met: what leaves a page goes to
// one behind.
bool sdbm_pagekeys(HashDatabase* database, std::uint64_t& page, std::vector<std::string>& keys);
// The number of the first error that the files gave, EIO for damaged pages, EFBIG for keys that the
// splits did not part and for files at their limit; 0 while there was none.
int sdbm_error(const HashDatabase* database);

}  // namespace MessageRouter
