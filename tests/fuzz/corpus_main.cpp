// Runs every file of the folders named on the command line through a fuzz target.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  unsigned inputs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream stream(file.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), {});
      std::printf("%s\n", file.path().c_str());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++inputs;
    }
  }
  // An empty corpus would be a test that tests nothing.
  return inputs == 0 ? 1 : 0;
}
