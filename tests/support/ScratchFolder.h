#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace TestSupport {

// An empty folder of its own, which goes with all that is in it when the object goes.
class ScratchFolder {
 public:
  // Throws std::runtime_error.
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& Folder() const { return folder_; }
  std::string Path(const std::string& name) const { return (folder_ / name).string(); }
  void Write(const std::string& name, const std::string& text) const;
  std::string Text(const std::string& name) const;
  // In order, with hidden ones.
  std::vector<std::string> Names() const;

 protected:
  const std::filesystem::path folder_;
};

// All bytes of a file; none if it can't be read.
std::string TextOf(const std::filesystem::path& path);

}  // namespace TestSupport
