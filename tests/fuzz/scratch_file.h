#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

// For targets whose input is a file: a folder of this process's own, gone with it. In memory, where
// the machine has such a folder, since the file is written for each input.
namespace FuzzTarget {

class ScratchFile {
 public:
  explicit ScratchFile(const char* name) {
    const std::filesystem::path memory = "/dev/shm";
    folder_ =
        ((std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path()) /
         "brelix-fuzz-XXXXXX")
            .string();
    if (mkdtemp(folder_.data()) == nullptr) std::abort();
    path_ = folder_ + '/' + name;
  }
  ~ScratchFile() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const std::string& Path() const { return path_; }

 private:
  std::string folder_;
  std::string path_;
};

}  // namespace FuzzTarget
