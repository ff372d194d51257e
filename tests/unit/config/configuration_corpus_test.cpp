// The fuzz target's corpus, through the same function.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/configuration_file_fuzz.cpp"

namespace {

TEST(ConfigurationFileCorpus, RunsThroughTheFuzzTarget) {
  const auto corpus = std::filesystem::path(BRELIX_CORPUS) / "configuration_file";
  unsigned inputs = 0;
  for (const auto& file : std::filesystem::directory_iterator(corpus)) {
    std::ifstream stream(file.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++inputs;
  }
  EXPECT_GT(inputs, 10u);
}

TEST(ConfigurationFileCorpus, ManySmallSectionsAreReadInBoundedTime) {
  std::string text;
  for (unsigned i = 0; text.size() < 2 * 1024 * 1024; ++i) {
    text += '[' + std::to_string(i) + "]\n\"\"=dword:1\n";
  }
  EXPECT_TRUE(MessageRouter::ConfigurationText::Parse(std::move(text), nullptr).has_value());
}

}  // namespace
