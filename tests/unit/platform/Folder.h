#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace Platform {

// A folder of its own for each test.
class Folder : public ::testing::Test {
 protected:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brelix-files-XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  ~Folder() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
  }

  std::string Text(const std::string& name) const {
    std::ifstream stream(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  // All names, hidden ones too.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::filesystem::path folder_;
};

}  // namespace Platform
