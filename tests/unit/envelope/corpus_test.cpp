#include <algorithm>
#include <fstream>
#include <sstream>

#include "fixture.h"

namespace MessageRouter {
namespace {

class EnvelopeCorpus : public TestSupport::EnvelopeTest {};

std::vector<std::filesystem::path> CorpusFiles() {
  const std::filesystem::path folder = std::filesystem::path(BRELIX_CORPUS) / "envelope_file";
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// What the fuzz target does with its inputs.
void Exercise(const std::string& path) {
  Envelope envelope(path);
  envelope.FromPersistent();
  envelope.Describe();
  envelope.Shrink();
  try {
    const BrelixMessaging::Envelope_var wire = envelope.ToWire(true);
  } catch (const std::runtime_error& error) {
    EXPECT_TRUE(IsDiscardableError(error, envelope)) << path << ": " << error.what();
  }
}

TEST_F(EnvelopeCorpus, EveryFileIsReadOrRefusedAndNothingElse) {
  const auto files = CorpusFiles();
  EXPECT_GE(files.size(), 15u);
  for (const auto& file : files) Exercise(file.string());
}

TEST_F(EnvelopeCorpus, EveryBeginningOfAWholeFileIsReadOrRefused) {
  Envelope made;
  made.CreateFromRouter(AWireEnvelope(), false);
  const std::string text = ReadBack("00000000.msg");
  for (std::size_t length = 0; length < text.size(); ++length) {
    WriteFile("cut", text.substr(0, length));
    Exercise(Path("cut"));
  }
}

}  // namespace
}  // namespace MessageRouter
