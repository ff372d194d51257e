#include "platform/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Process.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/RealPath.h"
#include "platform/linux/WriteAll.h"

namespace Platform {
namespace {

constexpr std::size_t kReadChunk = std::size_t{64} * 1024;
constexpr unsigned kPermissionBits = 07777;
constexpr mode_t kFolderMode = 0777;  // less the process's mask
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

int ErrorOf(int result) {
  return result == 0 ? 0 : errno;
}

void Report(int* error, int number) {
  if (error != nullptr) *error = number;
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

int FillReplacement(int file, const struct stat* old, std::string_view content, unsigned mode) {
  if (old != nullptr) {
    mode = old->st_mode & kPermissionBits;
    // Only root can give a file away; the group can often be kept where the owner can't. A group
    // that the old file did not have gets no rights.
    const bool groupKept = fchown(file, old->st_uid, old->st_gid) == 0 ||
                           fchown(file, static_cast<uid_t>(-1), old->st_gid) == 0;
    if (!groupKept) mode &= ~static_cast<unsigned>(S_IRWXG);
  }
  if (fchmod(file, mode) != 0) return errno;
  if (const int error = WriteAll(file, content)) return error;
  return ErrorOf(fsync(file));
}

}  // namespace

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr),
                                                             &std::free);
  return resolved == nullptr ? path : resolved.get();
}

int WriteAll(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

std::optional<std::string> ReadFile(const std::string& path, std::size_t limit, int* error) {
  // Without waiting: a pipe that lies where a file should be must not stop the process.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file || fstat(file.Get(), &status) != 0) {
    Report(error, errno);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    Report(error, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return std::nullopt;
  }
  if (status.st_size > 0 && static_cast<std::size_t>(status.st_size) > limit) {
    Report(error, EFBIG);
    return std::nullopt;
  }
  // One byte more than expected, so that the end of the file needs no further round.
  std::string content;
  std::size_t size = 0;
  std::size_t room = static_cast<std::size_t>(status.st_size) + 1;
  while (true) {
    content.resize(size + room);
    const ssize_t count = read(file.Get(), content.data() + size, room);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      Report(error, errno);
      return std::nullopt;
    }
    size += static_cast<std::size_t>(count);
    if (size > limit) {
      Report(error, EFBIG);
      return std::nullopt;
    }
    const bool full = static_cast<std::size_t>(count) == room;
    if (count == 0 || (!full && size >= static_cast<std::size_t>(status.st_size))) break;
    room = full ? kReadChunk : room - static_cast<std::size_t>(count);
  }
  content.resize(size);
  return content;
}

bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR || error == EAGAIN;
}

int ReplaceFile(const std::string& path, std::string_view content, unsigned mode) {
  static std::atomic<unsigned> counter{0};
  // A file that is reached through a symbolic link is replaced where it stands; the link stays.
  const std::string target = RealPath(path);
  const std::string folder = FolderOf(target);
  struct stat status {};
  const bool exists = stat(target.c_str(), &status) == 0;
  std::string beside;
  Descriptor file;
  do {
    // A process of the same number may have left one behind when it was killed.
    beside = folder + "." + target.substr(target.rfind('/') + 1) + "." +
             std::to_string(ProcessId()) + "." + std::to_string(++counter) + ".new";
    file = Descriptor(
        open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  } while (!file && errno == EEXIST);
  if (!file) return errno;
  int error = FillReplacement(file.Get(), exists ? &status : nullptr, content, mode);
  if (error == 0) error = ErrorOf(std::rename(beside.c_str(), target.c_str()));
  if (error != 0) {
    unlink(beside.c_str());
    return error;
  }
  const Descriptor parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return parent ? ErrorOf(fsync(parent.Get())) : errno;
}

int RemoveFile(const std::string& path) {
  return ErrorOf(unlink(path.c_str()));
}

int RenameFile(const std::string& from, const std::string& to) {
  return ErrorOf(std::rename(from.c_str(), to.c_str()));
}

bool FileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

bool IsReadable(const std::string& path) {
  return access(path.c_str(), R_OK) == 0;
}

std::optional<std::vector<std::string>> ListFolder(const std::string& path) {
  DIR* const folder = opendir(path.c_str());
  if (folder == nullptr) return std::nullopt;
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = readdir(folder)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
    errno = 0;
  }
  const bool whole = errno == 0;
  closedir(folder);
  if (!whole) return std::nullopt;
  return names;
}

int MakeFolder(const std::string& path, unsigned mode) {
  return ErrorOf(mkdir(path.c_str(), mode));
}

std::string SlashPath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

int MakeFolders(const std::string& path) {
  const std::string clean = SlashPath(path);
  // A drive means nothing here; "x:" is a name like others, and the first level.
  std::size_t position = 0;
  while (position < clean.size()) {
    const std::size_t begin = clean.find_first_not_of('/', position);
    if (begin == std::string::npos) break;
    position = std::min(clean.find('/', begin), clean.size());
    const std::string level = clean.substr(0, position);
    if (mkdir(level.c_str(), kFolderMode) == 0) continue;
    const int error = errno;
    if (!IsFolder(level)) return error == EEXIST ? ENOTDIR : error;
  }
  return 0;
}

std::optional<FileVersion> VersionOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileVersion{status.st_ino, status.st_size,
                     status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec};
}

std::optional<unsigned> ModeOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_mode & kPermissionBits;
}

bool SetMode(const std::string& path, unsigned mode) {
  return chmod(path.c_str(), mode) == 0;
}

}  // namespace Platform
