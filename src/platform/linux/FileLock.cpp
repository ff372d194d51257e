#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/Files.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/RealPath.h"

namespace Platform {
namespace {

constexpr auto kLongestWait = std::chrono::seconds(10);
constexpr auto kPause = std::chrono::milliseconds(2);
// Who can open the file can lock it and let the owner wait.
constexpr mode_t kMode = S_IRUSR | S_IWUSR;
// What another has put in the lock's place is neither followed nor waited for.
constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// A lock that an earlier version left open to others.
void Restrict(int file, const struct stat& status) {
  const bool ours = S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
  if (ours && (status.st_mode & ~kMode & ALLPERMS) != 0) fchmod(file, kMode);
}

// One that root makes must not shut the owner of the guarded file out.
void GiveToOwner(int file, const std::string& guarded) {
  struct stat status {};
  if (geteuid() != 0 || stat(guarded.c_str(), &status) != 0) return;
  if (fchown(file, status.st_uid, status.st_gid) != 0) return;
}

int OpenOrMake(const std::string& guarded) {
  const std::string path = guarded + ".lock";
  while (true) {
    const int made = open(path.c_str(), kFlags | O_CREAT | O_EXCL, kMode);
    if (made >= 0) GiveToOwner(made, guarded);
    if (made >= 0 || errno != EEXIST) return made;
    const int found = open(path.c_str(), kFlags);
    struct stat status {};
    if (found >= 0 && fstat(found, &status) == 0) Restrict(found, status);
    if (found >= 0 || errno != ENOENT) return found;
  }
}

}  // namespace

FileLock::FileLock(const std::string& guarded) : descriptor_(OpenOrMake(RealPath(guarded))) {
  if (descriptor_ < 0) return;
  const auto end = std::chrono::steady_clock::now() + kLongestWait;
  while (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
    const bool wait = errno == EINTR || errno == EWOULDBLOCK;
    if (!wait || std::chrono::steady_clock::now() >= end) {
      close(descriptor_);
      descriptor_ = -1;
      return;
    }
    std::this_thread::sleep_for(kPause);
  }
}

FileLock::~FileLock() {
  if (descriptor_ >= 0) close(descriptor_);
}

}  // namespace Platform
