// Any bytes as an envelope's file: read, or refused with the errors that senders recognise.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "broker/Encoding.h"
#include "envelope/Envelope.h"
#include "logging/Log.h"
#include "scratch_file.h"

namespace {

const std::string& InputPath() {
  static const FuzzTarget::ScratchFile file("input.msg");
  return file.Path();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  MessageRouter::SetLogMask(MessageRouter::kLogCritical);
  Encoding::InitializeCodec();
  InputPath();
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
