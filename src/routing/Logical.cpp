#include "routing/Logical.h"

#include <cerrno>
#include <cstdint>
#include <ostream>
#include <unordered_set>
#include <utility>

#include "logging/Log.h"
#include "platform/Files.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

constexpr unsigned kFileMode = 0600;
// Pages that a walk reads in one hold of the lock.
constexpr int kPagesAtOnce = 64;

bool RemoveIfThere(const std::string& path) {
  const int error = Platform::RemoveFile(path);
  return error == 0 || error == ENOENT;
}

}  // namespace

Logical::Logical(std::string path, std::uint64_t largestFiles)
    : path_(std::move(path)), largestFiles_(largestFiles) {
  const ThreadHelper::WriteGuard guard(mutex_);
  if (!guard || !Open(kReadWrite | kCreate)) LogError("Failed to open logical routing database\n");
}

bool Logical::Open(unsigned flags) {
  database_ = sdbm_open(path_, flags, kFileMode);
  failureLogged_ = false;
  if (database_ == nullptr) return false;
  sdbm_limit(database_.get(), largestFiles_);
  return true;
}

bool Logical::IsClosed() const {
  const ThreadHelper::ReadGuard guard(mutex_);
  return !guard || database_ == nullptr;
}

std::ostream& Logical::write(std::ostream& stream) const {
  const ThreadHelper::ReadGuard guard(mutex_);
  const auto handle = guard ? reinterpret_cast<std::uintptr_t>(database_.get()) : 0;
  return stream << "Logical(" << path_ << ',' << std::dec << handle << ')';
}

template <class Use, class Result>
Result Logical::WithDatabase(Result otherwise, Use&& use) const {
  ++waiting_;
  const ThreadHelper::WriteGuard guard(mutex_);
  --waiting_;
  if (!guard || database_ == nullptr) return otherwise;
  Result result = use(database_.get());
  const int error = sdbm_error(database_.get());
  if (error != 0 && !std::exchange(failureLogged_, true)) {
    LogSystemError(kLogError, ("Failed to use the logical routing database " + path_).c_str(),
                   error);
  }
  return result;
}

std::string Logical::Lookup(const std::string& key) const {
  return WithDatabase(std::string(), [&](HashDatabase* database) {
    return std::string(sdbm_fetch(database, key).value_or(std::string_view()));
  });
}

int Logical::Store(const std::string& key, const std::string& value) {
  return WithDatabase(
      kClosed, [&](HashDatabase* database) { return sdbm_store(database, key, value, kReplace); });
}

int Logical::MayRemove(const std::string& key, const std::string& owner) const {
  return WithDatabase(kClosed, [&](HashDatabase* database) {
    return sdbm_fetch(database, key) == std::string_view(owner) ? 0 : kOtherOwner;
  });
}

int Logical::Remove(const std::string& key, const std::string& owner) {
  return WithDatabase(kClosed, [&](HashDatabase* database) {
    if (sdbm_fetch(database, key) != std::string_view(owner)) return kOtherOwner;
    return sdbm_delete(database, key);
  });
}

template <class Wanted>
std::size_t Logical::Collect(std::vector<std::string>& keys, Wanted&& wanted) const {
  // A split that was broken off leaves pairs in two pages, and those that are removed then in one
  // where they are not looked for.
  std::unordered_set<std::string> met;
  std::vector<std::string> found;
  std::uint64_t page = 0;
  const auto readSome = [&](HashDatabase* database) {
    for (int i = 0; i < kPagesAtOnce; ++i) {
      found.clear();
      if (!sdbm_pagekeys(database, page, found)) return false;
      for (std::string& key : found) {
        const auto value = sdbm_fetch(database, key);
        if (value && wanted(*value) && met.insert(key).second) keys.push_back(std::move(key));
      }
    }
    return true;
  };
  while (WithDatabase(false, readSome)) {
    // The lock goes to whoever asks first, and that would be this thread again.
    if (waiting_ != 0) Platform::SleepMilliseconds(1);
  }
  return keys.size();
}

std::size_t Logical::KeysOf(const std::string& owner, std::vector<std::string>& keys) const {
  return Collect(keys, [&](std::string_view value) { return value == owner; });
}

std::size_t Logical::AllKeys(std::vector<std::string>& keys) const {
  return Collect(keys, [](std::string_view) { return true; });
}

bool Logical::Reset() {
  const ThreadHelper::WriteGuard guard(mutex_);
  if (!guard) return false;
  if (database_ != nullptr) sdbm_close(std::move(database_));
  const bool directory = RemoveIfThere(path_ + ".dir");
  const bool pages = RemoveIfThere(path_ + ".pag");
  // Half of the old files would be no map.
  return Open(kReadWrite | kCreate | kTruncate) && directory && pages;
}

}  // namespace MessageRouter
