#include "routing/HashDatabase.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "platform/PlacedFile.h"

namespace MessageRouter {

using Platform::PlacedFile;

struct HashDatabase {
  bool Select(std::uint32_t hash);
  bool LoadPage(std::uint64_t number);
  bool WritePage(std::uint64_t number, const HashPage& content);
  bool RequireRoom();
  bool MakeRoom(std::string_view key, std::uint32_t hash, std::size_t size);
  bool Split(std::uint32_t hash);
  bool LoadDirectoryBlock(std::uint64_t number);
  bool ReadBit(std::uint64_t node, bool& set);
  bool SetBit(std::uint64_t node);
  // The first page at that number or behind it that was ever written.
  std::optional<std::uint64_t> NextPage(std::uint64_t number);
  std::optional<std::string_view> NextKey();
  // Notes the error and forgets what is in memory, which may be half changed. Always false.
  bool Fail(int number);

  PlacedFile directory;
  PlacedFile pages;
  bool readOnly = false;
  int error = 0;  // the first one
  std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();

  HashPage page;
  std::optional<std::uint64_t> pageNumber;  // nothing: the page in memory stands for none on disk
  std::array<unsigned char, DBLKSIZ> block{};
  std::optional<std::uint64_t> blockNumber;
  std::uint64_t highestBit = 0;  // from here on no bit is set

  // Where the last Select ended.
  std::uint64_t node = 0;
  std::uint32_t mask = 0;

  // The walk.
  std::uint64_t walkPage = 0;
  std::size_t walkPair = 0;
};

namespace {

constexpr unsigned kAccess = kWriteOnly | kReadWrite;
constexpr std::uint64_t kBitsPerByte = 8;
constexpr std::uint64_t kBitsPerBlock = DBLKSIZ * kBitsPerByte;
constexpr std::uint32_t kAllBits = 0xFFFFFFFF;
// More than all nodes that 32 hash bits lead to.
constexpr std::uint64_t kLargestDirectory = std::uint64_t{1} << 32;
constexpr char kCannotInsert[] = "sdbm: cannot insert after SPLTMAX attempts.\n";

std::uint64_t ChildOf(std::uint64_t node, bool right) {
  return 2 * node + (right ? 2 : 1);
}

// A damaged page may have the key twice.
HashPage Without(const HashPage& page, std::string_view key) {
  HashPage rest = page;
  while (const auto pair = rest.Find(key)) rest.Remove(*pair);
  return rest;
}

bool IsUsable(const HashDatabase* database) {
  if (database == nullptr) errno = EINVAL;
  return database != nullptr;
}

bool IsUsable(const HashDatabase* database, std::string_view key) {
  if (database != nullptr && !key.empty()) return true;
  errno = EINVAL;
  return false;
}

bool IsWritable(const HashDatabase* database, std::string_view key) {
  if (!IsUsable(database, key)) return false;
  if (database->readOnly) errno = EPERM;
  return !database->readOnly;
}

}  // namespace

bool HashDatabase::Fail(int number) {
  if (error == 0) error = number;
  page = HashPage();
  pageNumber.reset();
  blockNumber.reset();
  errno = number;
  return false;
}

// A read past the end leaves the page in memory as it is: an empty one at first, so that a new file
// begins with an empty page.
bool HashDatabase::LoadPage(std::uint64_t number) {
  if (pageNumber == number) return true;
  pageNumber.reset();
  std::size_t count = 0;
  if (const int failure = pages.Read(number * PBLKSIZ, page.Bytes(), PBLKSIZ, count)) {
    return Fail(failure);
  }
  if ((count != 0 && count != PBLKSIZ) || !page.IsValid()) return Fail(EIO);
  pageNumber = number;
  return true;
}

bool HashDatabase::WritePage(std::uint64_t number, const HashPage& content) {
  const int failure = pages.Write(number * PBLKSIZ, content.Bytes(), PBLKSIZ);
  return failure == 0 || Fail(failure);
}

bool HashDatabase::LoadDirectoryBlock(std::uint64_t number) {
  if (blockNumber == number) return true;
  blockNumber.reset();
  std::size_t count = 0;
  if (const int failure = directory.Read(number * DBLKSIZ, block.data(), DBLKSIZ, count)) {
    return Fail(failure);
  }
  std::fill(block.begin() + static_cast<std::ptrdiff_t>(count), block.end(), 0);
  blockNumber = number;
  return true;
}

bool HashDatabase::ReadBit(std::uint64_t bit, bool& set) {
  if (!LoadDirectoryBlock(bit / kBitsPerBlock)) return false;
  set = (block[bit / kBitsPerByte % DBLKSIZ] >> bit % kBitsPerByte & 1) != 0;
  return true;
}

bool HashDatabase::SetBit(std::uint64_t bit) {
  const std::uint64_t number = bit / kBitsPerBlock;
  if (!LoadDirectoryBlock(number)) return false;
  block[bit / kBitsPerByte % DBLKSIZ] |= static_cast<unsigned char>(1u << bit % kBitsPerByte);
  if (const int failure = directory.Write(number * DBLKSIZ, block.data(), DBLKSIZ)) {
    return Fail(failure);
  }
  // A node deep down can lie more than a block behind the others; the file now reaches to it.
  while (highestBit <= bit) highestBit += kBitsPerBlock;
  return true;
}

// There are 32 hash bits to descend by, whatever the directory says.
bool HashDatabase::Select(std::uint32_t hash) {
  node = 0;
  mask = 0;
  while (node < highestBit && mask != kAllBits) {
    bool split = false;
    if (!ReadBit(node, split)) return false;
    if (!split) break;
    node = ChildOf(node, (hash & (mask + 1)) != 0);
    mask = mask << 1 | 1;
  }
  return LoadPage(hash & mask);
}

// Divides the page in memory by the next hash bit, and goes on with the half for `hash`. In this
// order a crash or a full disk between two writes loses no pair: the new page is not looked at
// before its bit is set, and the old one still has all pairs then.
bool HashDatabase::Split(std::uint32_t hash) {
  const std::uint32_t bit = mask + 1;
  const std::uint64_t keptNumber = *pageNumber;
  const std::uint64_t movedNumber = keptNumber | bit;
  HashPage kept;
  HashPage moved;
  page.Divide(bit, kept, moved);
  if (!WritePage(movedNumber, moved) || !SetBit(node) || !WritePage(keptNumber, kept)) return false;
  const bool goesToMoved = (hash & bit) != 0;
  page = goesToMoved ? moved : kept;
  pageNumber = goesToMoved ? movedNumber : keptNumber;
  node = ChildOf(node, goesToMoved);
  mask |= bit;
  return true;
}

// Only splits make the files grow: whatever else is written has its page already.
bool HashDatabase::RequireRoom() {
  std::uint64_t inPages = 0;
  std::uint64_t inDirectory = 0;
  int failure = pages.Allocated(inPages);
  if (failure == 0) failure = directory.Allocated(inDirectory);
  if (failure == 0 && inPages + inDirectory >= limit) failure = EFBIG;
  return failure == 0 || Fail(failure);
}

// A pair that is to be replaced is divided with the others, and goes with the last page that is
// written: its successor's.
bool HashDatabase::MakeRoom(std::string_view key, std::uint32_t hash, std::size_t size) {
  int attempts = 0;
  while (attempts < SPLTMAX && mask != kAllBits) {
    if (!RequireRoom() || !Split(hash)) return false;
    if (Without(page, key).HasRoomFor(size)) return true;
    ++attempts;
  }
  // Not for what nothing was tried for: whoever names such keys over and over would fill a log.
  if (attempts > 0) std::fputs(kCannotInsert, stderr);
  return Fail(EFBIG);
}

// Holes are passed over: a split far down the tree makes the file large, and hardly fills it.
std::optional<std::uint64_t> HashDatabase::NextPage(std::uint64_t number) {
  std::optional<std::uint64_t> content;
  if (const int failure = pages.NextContent(number * PBLKSIZ, content)) Fail(failure);
  if (content) content = *content / PBLKSIZ;
  return content;
}

// A damaged page hides its own keys alone.
std::optional<std::string_view> HashDatabase::NextKey() {
  while (true) {
    if (walkPair == 0) {
      const std::optional<std::uint64_t> content = NextPage(walkPage);
      if (!content) return std::nullopt;
      walkPage = *content;
    }
    if (LoadPage(walkPage) && walkPair < page.Pairs()) return page.Key(walkPair++);
    ++walkPage;
    walkPair = 0;
  }
}

void HashDatabaseCloser::operator()(HashDatabase* database) const {
  delete database;
}

HashDatabasePtr sdbm_open(const std::string& name, unsigned flags, unsigned mode) {
  HashDatabasePtr database(new HashDatabase);
  database->readOnly = (flags & kAccess) == kReadOnly;
  const PlacedFile::Mode how{.write = !database->readOnly,
                             .create = (flags & kCreate) != 0,
                             .truncate = (flags & kTruncate) != 0,
                             .permissions = mode};
  std::uint64_t size = 0;
  int failure = database->pages.Open(name + ".pag", how);
  if (failure == 0) failure = database->directory.Open(name + ".dir", how);
  if (failure == 0) failure = database->directory.Size(size);
  if (failure != 0) {
    errno = failure;
    return nullptr;
  }
  database->highestBit = std::min(size, kLargestDirectory) * kBitsPerByte;
  if (size == 0) database->blockNumber = 0;
  return database;
}

void sdbm_close(HashDatabasePtr database) {
  if (IsUsable(database.get())) database.reset();
}

void sdbm_limit(HashDatabase* database, std::uint64_t bytes) {
  if (IsUsable(database)) database->limit = bytes;
}

std::optional<std::string_view> sdbm_fetch(HashDatabase* database, std::string_view key) {
  if (!IsUsable(database, key) || !database->Select(HashOfKey(key))) return std::nullopt;
  const auto pair = database->page.Find(key);
  if (!pair) return std::nullopt;
  return database->page.Value(*pair);
}

int sdbm_store(HashDatabase* database, std::string_view key, std::string_view value, int flags) {
  if (!IsWritable(database, key)) return -1;
  const std::size_t size = key.size() + value.size();
  if (size > PAIRMAX) {
    errno = EINVAL;
    return -1;
  }
  const std::uint32_t hash = HashOfKey(key);
  if (!database->Select(hash)) return -1;
  HashPage& page = database->page;
  if (flags != kReplace && page.Find(key)) return 1;
  if (!Without(page, key).HasRoomFor(size) && !database->MakeRoom(key, hash, size)) return -1;
  page = Without(page, key);
  page.Add(key, value);
  return database->WritePage(*database->pageNumber, page) ? 0 : -1;
}

int sdbm_delete(HashDatabase* database, std::string_view key) {
  if (!IsWritable(database, key) || !database->Select(HashOfKey(key))) return -1;
  if (!database->page.Find(key)) return -1;
  database->page = Without(database->page, key);
  return database->WritePage(*database->pageNumber, database->page) ? 0 : -1;
}

std::optional<std::string_view> sdbm_firstkey(HashDatabase* database) {
  if (!IsUsable(database)) return std::nullopt;
  database->walkPage = 0;
  database->walkPair = 0;
  return database->NextKey();
}

std::optional<std::string_view> sdbm_nextkey(HashDatabase* database) {
  if (!IsUsable(database)) return std::nullopt;
  return database->NextKey();
}

bool sdbm_pagekeys(HashDatabase* database, std::uint64_t& page, std::vector<std::string>& keys) {
  if (!IsUsable(database)) return false;
  const std::optional<std::uint64_t> next = database->NextPage(page);
  if (!next) return false;
  page = *next + 1;
  if (!database->LoadPage(*next)) return true;
  for (std::size_t pair = 0; pair < database->page.Pairs(); ++pair) {
    keys.emplace_back(database->page.Key(pair));
  }
  return true;
}

int sdbm_error(const HashDatabase* database) {
  return IsUsable(database) ? database->error : EINVAL;
}

}  // namespace MessageRouter
