#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "routing/HashDatabase.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// The persistent map from the name of every router below this one to the child that leads there, in
// the files PATH.dir and PATH.pag. Names are compared byte by byte.
//
// A map whose files can't be opened is closed: it finds nothing and stores nothing. What goes wrong
// with the files later makes the operation fail; the first failure is logged.
// Threads: any. Each operation takes the lock to write, since a lookup too changes what the
// database has in memory; the files are read and written beneath it, and nothing else.
class Logical final {
 public:
  static constexpr int kClosed = -2;
  static constexpr int kOtherOwner = -3;

  // Bytes that the files may take on the disk. A child that announces many long names of nearly the
  // same hash makes them take forty times as much as the names.
  static constexpr std::uint64_t kLargestFiles = std::uint64_t{256} << 20;

  explicit Logical(std::string path, std::uint64_t largestFiles = kLargestFiles);
  virtual bool IsClosed() const;
  virtual std::ostream& write(std::ostream& stream) const;

  std::string Lookup(const std::string& key) const;  // empty if absent or closed
  // 0, -1 for a failure, kClosed. Replaces.
  int Store(const std::string& key, const std::string& value);
  // As Store; kOtherOwner if the key's value is not `owner`, or there is none.
  int Remove(const std::string& key, const std::string& owner);
  // 0 if Remove would try to remove it, otherwise what Remove would return.
  int MayRemove(const std::string& key, const std::string& owner) const;
  // Both append each key that Lookup finds once, in the order of the database, and return the size
  // of the list. They let others in between a few pages; what is there all the time is listed, and
  // where the lock can't be taken again the list ends.
  std::size_t KeysOf(const std::string& owner, std::vector<std::string>& keys) const;
  std::size_t AllKeys(std::vector<std::string>& keys) const;
  // Begins anew with new files. False if any step of it fails: the map is closed then, or empty in
  // the files that could not be deleted.
  bool Reset();

 private:
  // Runs `use` on the open database, and logs its first error.
  template <class Use, class Result>
  Result WithDatabase(Result otherwise, Use&& use) const;
  template <class Wanted>
  std::size_t Collect(std::vector<std::string>& keys, Wanted&& wanted) const;
  bool Open(unsigned flags) REQUIRES(mutex_);

  const std::string path_;
  const std::uint64_t largestFiles_;
  HashDatabasePtr database_ GUARDED_BY(mutex_);  // null: closed
  mutable ThreadHelper::RWMutex mutex_;
  mutable std::atomic<unsigned> waiting_{0};  // who wants the lock
  mutable bool failureLogged_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
