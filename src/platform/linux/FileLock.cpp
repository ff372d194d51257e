#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/Files.h"

namespace Platform {
namespace {

constexpr auto kLongestWait = std::chrono::seconds(10);
constexpr auto kPause = std::chrono::milliseconds(2);
// Who may read the folder may lock: a file made by root must not shut a service out.
constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

}  // namespace

FileLock::FileLock(const std::string& path)
    : descriptor_(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kMode)) {
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
