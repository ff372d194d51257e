// Any bytes as an envelope's file: read, or refused with the errors that senders recognise.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "broker/Encoding.h"
#include "envelope/Envelope.h"
#include "logging/Log.h"

namespace {

// In memory, where the machine has such a folder: the file is written for each input.
std::string MakePath() {
  const std::filesystem::path memory = "/dev/shm";
  std::string folder =
      ((std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path()) /
       "brelix-fuzz-XXXXXX")
          .string();
  if (mkdtemp(folder.data()) == nullptr) std::abort();
  return folder + "/input.msg";
}

const std::string& InputPath() {
  static const std::string path = MakePath();
  return path;
}

void RemoveFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(std::filesystem::path(InputPath()).parent_path(), ignored);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  MessageRouter::SetLogMask(MessageRouter::kLogCritical);
  Encoding::InitializeCodec();
  InputPath();
  std::atexit(RemoveFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::ofstream(InputPath(), std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  MessageRouter::Envelope envelope(InputPath());
  envelope.FromPersistent();
  envelope.Describe();
  envelope.IsExpired();
  while (envelope.HopCount() > 0) envelope.PopHop();
  envelope.Shrink();
  try {
    delete envelope.ToWire(true);
  } catch (const std::runtime_error& error) {
    if (!MessageRouter::IsDiscardableError(error, envelope)) std::abort();
  }
  return 0;
}
