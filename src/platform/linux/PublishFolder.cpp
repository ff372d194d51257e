#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/FileFaults.h"
#include "platform/linux/WriteAll.h"

namespace Platform {
namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR;

bool LacksUnnamedFiles(int error) {
  return error == EOPNOTSUPP || error == EISDIR || error == EINVAL;
}

bool IsGone(int folder) {
  struct stat status {};
  return fstat(folder, &status) != 0 || status.st_nlink == 0;
}

int SyncFile(int file) {
  ++Faults().fileSyncs;
  if (const int error = Faults().fileSyncError) return error;
  return fdatasync(file) == 0 ? 0 : errno;
}

int SyncFolder(int folder) {
  std::latch* const hold = Faults().folderSyncHold.exchange(nullptr);
  ++Faults().folderSyncs;
  if (hold != nullptr) hold->wait();
  if (const int error = Faults().folderSyncError) return error;
  return fsync(folder) == 0 ? 0 : errno;
}

}  // namespace

FileFaults& Faults() {
  static FileFaults faults;
  return faults;
}

struct PublishFolder::State {
  using Folder = std::shared_ptr<const Descriptor>;

  explicit State(std::string path) : path_(std::move(path)) {}

  // The folder's descriptor; it is opened where `stale` is still the one in use.
  Folder Open(const Folder& stale, int* error) {
    const std::lock_guard guard(mutex_);
    if (folder_ == nullptr || folder_ == stale) {
      Descriptor opened(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      *error = opened ? 0 : errno;
      folder_ = opened ? std::make_shared<const Descriptor>(std::move(opened)) : nullptr;
    }
    return folder_;
  }

  int Publish(const std::string& name, std::string_view content, bool sync) {
    int error = 0;
    Folder folder = Open(nullptr, &error);
    if (folder == nullptr) return error;
    error = PublishIn(folder, name, content, sync);
    if (error == 0 || !IsGone(folder->Get())) return error;
    // The folder was taken away and perhaps made again since it was opened.
    folder = Open(folder, &error);
    return folder == nullptr ? error : PublishIn(folder, name, content, sync);
  }

  int PublishIn(const Folder& folder, const std::string& name, std::string_view content,
                bool sync) {
    int error = EOPNOTSUPP;
    if (unnamedFiles_ && !Faults().noUnnamedFiles) {
      error = PublishUnnamed(folder->Get(), name, content, sync);
      if (LacksUnnamedFiles(error)) unnamedFiles_ = false;
    }
    if (LacksUnnamedFiles(error)) {
      error = PublishRenamed(folder->Get(), name, content, sync);
    }
    if (error != 0 || !sync) return error;
    error = SyncShared(folder);
    // A name that may be gone after a crash was never given.
    if (error != 0) unlinkat(folder->Get(), name.c_str(), 0);
    return error;
  }

  int PublishUnnamed(int folder, const std::string& name, std::string_view content, bool sync) {
    const Descriptor file(openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kFileMode));
    if (!file) return errno;
    if (const int error = Fill(file.Get(), content, sync)) return error;
    return Link(file.Get(), folder, name);
  }

  int Link(int file, int folder, const std::string& name) {
    if (linkByNumber_ && !Faults().noLinkByNumber) {
      if (linkat(file, "", folder, name.c_str(), AT_EMPTY_PATH) == 0) return 0;
      // Without the privilege for this short way the kernel says ENOENT.
      if (errno != ENOENT && errno != EPERM) return errno;
    }
    char own[sizeof "/proc/self/fd/" + 10];
    std::snprintf(own, sizeof own, "/proc/self/fd/%d", file);
    if (linkat(AT_FDCWD, own, folder, name.c_str(), AT_SYMLINK_FOLLOW) != 0) return errno;
    linkByNumber_ = false;
    return 0;
  }

  int PublishRenamed(int folder, const std::string& name, std::string_view content, bool sync) {
    std::string hidden;
    int created = -1;
    // A process that crashed can have left a file behind, and process ids come again.
    do {
      hidden = ".publish-" + std::to_string(ProcessId()) + "-" + std::to_string(++hiddenFiles_);
      created = openat(folder, hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    } while (created < 0 && errno == EEXIST);
    const Descriptor file(created);
    if (!file) return errno;
    int error = Fill(file.Get(), content, sync);
    if (error == 0) error = RenameExclusively(folder, hidden, name);
    if (error != 0) unlinkat(folder, hidden.c_str(), 0);
    return error;
  }

  static int RenameExclusively(int folder, const std::string& from, const std::string& to) {
    if (!Faults().noExclusiveRename) {
      if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
      if (errno != EINVAL && errno != ENOSYS) return errno;
    }
    // A second name, which fails where it is taken; then the first goes.
    if (linkat(folder, from.c_str(), folder, to.c_str(), 0) != 0) return errno;
    unlinkat(folder, from.c_str(), 0);
    return 0;
  }

  static int Fill(int file, std::string_view content, bool sync) {
    if (const int error = WriteAll(file, content)) return error;
    return sync ? SyncFile(file) : 0;
  }

  // One caller syncs for all that had their name when it began; the others wait for it, and the
  // first of those whom it left out syncs next. The mutex is not held meanwhile. The kernel reports
  // a failure once, so it counts for all whom that round was to serve.
  int SyncShared(const Folder& folder) {
    std::unique_lock lock(syncMutex_);
    if (gathering_ == nullptr) gathering_ = std::make_shared<Round>(folder);
    ++Faults().folderSyncCallers;
    // The folder was made anew while others still wait for the old one.
    if (gathering_->folder != folder) {
      lock.unlock();
      return SyncFolder(folder->Get());
    }
    const std::shared_ptr<Round> round = gathering_;
    while (!round->done) {
      if (syncing_) {
        synced_.wait(lock);
        continue;
      }
      syncing_ = true;
      gathering_ = nullptr;
      lock.unlock();
      const int error = SyncFolder(folder->Get());
      lock.lock();
      syncing_ = false;
      round->error = error;
      round->done = true;
      synced_.notify_all();
    }
    return round->error;
  }

  struct Round {
    explicit Round(Folder f) : folder(std::move(f)) {}
    const Folder folder;
    bool done = false;
    int error = 0;
  };

  const std::string path_;
  std::atomic<bool> unnamedFiles_{true};
  std::atomic<bool> linkByNumber_{true};
  std::atomic<unsigned> hiddenFiles_{0};

  std::mutex mutex_;
  Folder folder_;  // guarded by mutex_

  std::mutex syncMutex_;
  std::condition_variable synced_;
  bool syncing_ = false;              // guarded by syncMutex_
  std::shared_ptr<Round> gathering_;  // guarded by syncMutex_: who is served by the next sync
};

PublishFolder::PublishFolder(std::string path) : state_(std::make_unique<State>(std::move(path))) {}

PublishFolder::~PublishFolder() = default;

const std::string& PublishFolder::Path() const {
  return state_->path_;
}

int PublishFolder::Publish(const std::string& name, std::string_view content, bool sync) {
  return state_->Publish(name, content, sync);
}

}  // namespace Platform
