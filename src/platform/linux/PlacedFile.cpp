#include "platform/PlacedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/linux/Descriptor.h"
#include "platform/linux/FileFaults.h"

namespace Platform {
namespace {

// What a test has planned for this read.
int PlannedReadError() {
  std::atomic<int>& toFail = Faults().placedReadToFail;
  return toFail.load() >= 0 && toFail.fetch_sub(1) == 0 ? EIO : 0;
}

// What a test has planned for this write.
int PlannedWriteError() {
  FileFaults& faults = Faults();
  int left = faults.placedWritesLeft.load();
  while (left > 0 && !faults.placedWritesLeft.compare_exchange_weak(left, left - 1)) {
  }
  return left == 0 ? ENOSPC : 0;
}

}  // namespace

struct PlacedFile::State {
  Descriptor file;
};

PlacedFile::PlacedFile() = default;
PlacedFile::~PlacedFile() = default;
PlacedFile::PlacedFile(PlacedFile&&) noexcept = default;
PlacedFile& PlacedFile::operator=(PlacedFile&&) noexcept = default;

int PlacedFile::Open(const std::string& path, const Mode& mode) {
  state_.reset();
  // Without waiting: a pipe that lies where a file should be must not stop the process.
  int flags = O_CLOEXEC | O_NONBLOCK | (mode.write ? O_RDWR : O_RDONLY);
  if (mode.create) flags |= O_CREAT;
  if (mode.truncate) flags |= O_TRUNC;
  Descriptor file(open(path.c_str(), flags, static_cast<mode_t>(mode.permissions)));
  struct stat status {};
  if (!file || fstat(file.Get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  state_ = std::make_unique<State>(State{std::move(file)});
  return 0;
}

int PlacedFile::Size(std::uint64_t& size) const {
  struct stat status {};
  if (!state_) return EBADF;
  if (fstat(state_->file.Get(), &status) != 0) return errno;
  size = static_cast<std::uint64_t>(status.st_size);
  return 0;
}

int PlacedFile::Allocated(std::uint64_t& size) const {
  constexpr std::uint64_t kBlock = 512;  // whatever the file system's own are
  struct stat status {};
  if (!state_) return EBADF;
  if (fstat(state_->file.Get(), &status) != 0) return errno;
  size = static_cast<std::uint64_t>(status.st_blocks) * kBlock;
  return 0;
}

int PlacedFile::Read(std::uint64_t offset, void* buffer, std::size_t size,
                     std::size_t& count) const {
  count = 0;
  if (!state_) return EBADF;
  if (const int planned = PlannedReadError()) return planned;
  while (count < size) {
    const ssize_t read = pread(state_->file.Get(), static_cast<char*>(buffer) + count, size - count,
                               static_cast<off_t>(offset + count));
    if (read < 0 && errno == EINTR) continue;
    if (read < 0) return errno;
    if (read == 0) break;
    count += static_cast<std::size_t>(read);
  }
  return 0;
}

int PlacedFile::Write(std::uint64_t offset, const void* data, std::size_t size) {
  if (!state_) return EBADF;
  if (const int planned = PlannedWriteError()) return planned;
  std::size_t written = 0;
  while (written < size) {
    const std::size_t left = Faults().placedWritesTakeNothing ? 0 : size - written;
    const ssize_t count = pwrite(state_->file.Get(), static_cast<const char*>(data) + written, left,
                                 static_cast<off_t>(offset + written));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return ENOSPC;
    written += static_cast<std::size_t>(count);
  }
  return 0;
}

int PlacedFile::NextContent(std::uint64_t offset, std::optional<std::uint64_t>& found) const {
  found.reset();
  if (!state_) return EBADF;
  if (const auto hook = Faults().placedSearchHook.exchange(nullptr)) hook();
  if (const int planned = Faults().placedSearchError.exchange(0)) return planned;
  const off_t place = lseek(state_->file.Get(), static_cast<off_t>(offset), SEEK_DATA);
  if (place < 0) return errno == ENXIO ? 0 : errno;
  found = static_cast<std::uint64_t>(place);
  return 0;
}

}  // namespace Platform
