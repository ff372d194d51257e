#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

// The body of the fuzz target, over the inputs that were worth keeping.
#include "fuzz/ior_fuzz.cpp"  // NOLINT(bugprone-suspicious-include)

namespace {

std::vector<std::string> Corpus() {
  const auto folder = std::filesystem::path(BRELIX_CORPUS) / "ior";
  std::vector<std::string> inputs;
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    std::ifstream stream(file.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return inputs;
}

void Try(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

TEST(IorCorpus, NoInputDoesMoreThanBeRefused) {
  const auto inputs = Corpus();
  EXPECT_GT(inputs.size(), 10u);
  for (const std::string& input : inputs) EXPECT_NO_THROW(Try(input)) << input;
}

TEST(IorCorpus, NoMutationDoesMoreThanBeRefused) {
  std::mt19937 random(1);
  for (const std::string& input : Corpus()) {
    for (int round = 0; round < 400; ++round) {
      std::string mutated = input;
      for (unsigned change = 0; change < 1 + random() % 6 && !mutated.empty(); ++change) {
        mutated[random() % mutated.size()] = "0123456789abcdefF?"[random() % 18];
      }
      if (random() % 4 == 0) mutated.resize(random() % (mutated.size() + 1));
      EXPECT_NO_THROW(Try(mutated)) << mutated;
    }
  }
}

}  // namespace
