#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Files as the router needs them: whole or not there.
namespace Platform {

// A folder in which files appear under their names whole or not at all.
// Threads: any. With many threads publishing at once, one sync of the folder serves all that came
// before it.
class PublishFolder {
 public:
  // `path` ends in a slash. The folder need not exist yet.
  explicit PublishFolder(std::string path);
  ~PublishFolder();
  PublishFolder(const PublishFolder&) = delete;
  PublishFolder& operator=(const PublishFolder&) = delete;

  const std::string& Path() const;

  // Writes `content` to a file without a name and then gives it the name. With `sync`, file and
  // folder are on stable storage on return. Returns 0, or the system's error number; nothing is
  // left behind then. EEXIST if the name is taken. The file can be read and written by its owner
  // alone. Where the file system has no files without a name, a crash meanwhile may leave a hidden
  // ".publish-" file.
  int Publish(const std::string& name, std::string_view content, bool sync);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Reads a whole regular file. Nothing if it cannot be opened or read, or is longer than `limit`
// bytes; `error`, where given, then has the system's number (EFBIG for too long).
std::optional<std::string> ReadFile(const std::string& path, std::size_t limit, int* error);
// Whether a file that gave that error may well be readable at another moment.
bool IsShortage(int error);

// Writes beside the old file, syncs, and renames over it: readers see the old text or the new.
// Permissions and owner of an old file are kept (the owner only as far as the process may); a new
// one gets `mode`. A symbolic link stays, and the file that it leads to is replaced. Returns 0 or
// the error; nothing is left beside the old file then.
int ReplaceFile(const std::string& path, std::string_view content, unsigned mode);

// Each removes or renames one file; returns 0 or the error.
int RemoveFile(const std::string& path);
int RenameFile(const std::string& from, const std::string& to);

bool FileExists(const std::string& path);
bool IsReadable(const std::string& path);

// Names in a folder, in no order, without "." and "..". Nothing if it cannot be read.
std::optional<std::vector<std::string>> ListFolder(const std::string& path);

// Makes one folder. 0, or the error; EEXIST where it is there already.
int MakeFolder(const std::string& path, unsigned mode);

// The path with "/" in the place of each "\": the way to use a folder that MakeFolders made.
std::string SlashPath(std::string path);

// Makes a path level by level; "/" and "\" both separate, a leading "x:" stays whole. A level that
// exists is no failure. 0 or the error.
int MakeFolders(const std::string& path);

// What tells one version of a file from another.
struct FileVersion {
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedNanoseconds = 0;
  bool operator==(const FileVersion&) const = default;
};
std::optional<FileVersion> VersionOf(const std::string& path);
// The permission bits of a file.
std::optional<unsigned> ModeOf(const std::string& path);
bool SetMode(const std::string& path, unsigned mode);

// An exclusive lock among processes and among objects of one process, held while the object lives.
class FileLock {
 public:
  // Waits for the lock on a file. The lock is a file of its own beside it (beside the file that a
  // symbolic link leads to) with ".lock" behind the name, for the owner alone, made if missing and
  // never removed. Locked() is false if that cannot be done, or another holds it for ten seconds.
  explicit FileLock(const std::string& guarded);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool Locked() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

}  // namespace Platform
