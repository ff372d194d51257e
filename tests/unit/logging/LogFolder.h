#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "logging/Log.h"
#include "support/ScratchFolder.h"

namespace MessageRouter {

// A folder of its own for log files; the log is closed and the mask open when a test ends.
class LogFolder : public ::testing::Test, protected TestSupport::ScratchFolder {
 protected:
  static constexpr unsigned kAllLevels = 0x7FE;
  static constexpr std::uint32_t kLarge = 1 << 20;

  LogFolder() { SetLogMask(kAllLevels); }
  ~LogFolder() override {
    CloseLog();
    SetLogMask(kAllLevels);
  }

  bool Open(std::uint32_t count = 8, std::uint32_t size = kLarge, bool console = false) const {
    return OpenLog("router", folder_.string(), count, size, console);
  }

  void Touch(const std::string& name) const { Write(name, "old\n"); }

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
};

}  // namespace MessageRouter
