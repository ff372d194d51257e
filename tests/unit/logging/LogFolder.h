#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "logging/Log.h"

namespace MessageRouter {

// A folder of its own for log files; the log is closed and the mask open when a test ends.
class LogFolder : public ::testing::Test {
 protected:
  static constexpr unsigned kAllLevels = 0x7FE;
  static constexpr std::uint32_t kLarge = 1 << 20;

  LogFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brelix-log-XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    SetLogMask(kAllLevels);
  }
  ~LogFolder() override {
    CloseLog();
    SetLogMask(kAllLevels);
    std::filesystem::remove_all(folder_);
  }

  bool Open(std::uint32_t count = 8, std::uint32_t size = kLarge, bool console = false) const {
    return OpenLog("router", folder_.string(), count, size, console);
  }

  void Touch(const std::string& name) const { std::ofstream(folder_ / name) << "old\n"; }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string Text(const std::string& name) const {
    std::ifstream stream(folder_ / name);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  // The lines of a file without their time and thread, "I text" each; of the only file if no name
  // is given.
  std::vector<std::string> Lines(const std::string& name = {}) const {
    constexpr std::size_t kPrefix = sizeof "14.11.2026 12:48:13 0A1C " - 1;
    std::vector<std::string> lines;
    const std::vector<std::string> names = Names();
    std::istringstream stream(Text(name.empty() && !names.empty() ? names.back() : name));
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line.size() < kPrefix ? line : line.substr(kPrefix));
    }
    return lines;
  }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  std::filesystem::path folder_;
};

}  // namespace MessageRouter
