#include "support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestSupport {
namespace {

// Where the newest folder of this process is, for those that it starts.
constexpr char kNewest[] = "BRELIX_TEST_SCRATCH";

// The process of a death test makes a folder of its own and doesn't live to remove it: that goes
// with the folder of the test that has started it.
std::filesystem::path PlaceOfFolders() {
  const char* const above = std::getenv(kNewest);
  if (testing::internal::InDeathTestChild() && above != nullptr) return above;
  return std::filesystem::temp_directory_path();
}

std::filesystem::path MakeFolder() {
  std::string pattern = (PlaceOfFolders() / "brelix-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no scratch folder");
  if (!testing::internal::InDeathTestChild()) setenv(kNewest, pattern.c_str(), 1);
  return pattern;
}

}  // namespace

ScratchFolder::ScratchFolder() : folder_(MakeFolder()) {}

ScratchFolder::~ScratchFolder() {
  const char* const newest = std::getenv(kNewest);
  if (newest != nullptr && folder_ == newest) unsetenv(kNewest);
  std::error_code ignored;  // it is the temporary folder's business then
  std::filesystem::remove_all(folder_, ignored);
}

void ScratchFolder::Write(const std::string& name, const std::string& text) const {
  std::ofstream(folder_ / name, std::ios::binary) << text;
}

std::string ScratchFolder::Text(const std::string& name) const {
  return TextOf(folder_ / name);
}

std::vector<std::string> ScratchFolder::Names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string TextOf(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace TestSupport
