#include "support/ScratchFolder.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestSupport {
namespace {

std::filesystem::path MakeFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "brelix-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no scratch folder");
  return pattern;
}

}  // namespace

ScratchFolder::ScratchFolder() : folder_(MakeFolder()) {}

ScratchFolder::~ScratchFolder() {
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
