#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "logging/Log.h"
#include "parent/IorParser.h"

// The text of an IOR, as anyone who answers at the parent's address can send it. Each input is
// tried as the text itself and as the octets behind the digits, which gets past the digits at once.
// No name is looked up.

namespace {

void Read(const std::string& ior) {
  const auto resolve = [](const std::string&, std::uint16_t port) {
    return ACE_INET_Addr(port, static_cast<ACE_UINT32>(0));
  };
  std::vector<ACE_INET_Addr> addresses;
  try {
    MessageRouter::ReadIiopAddresses(ior, resolve, addresses);
  } catch (const std::invalid_argument&) {
    // The one answer to a text that is none.
  }
}

std::string AsIor(const std::uint8_t* octets, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "IOR:";
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[octets[i] >> 4];
    text += kDigits[octets[i] & 15];
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Lines about every input would be all that it does.
  static const bool quiet = (MessageRouter::SetLogMask(0), true);
  static_cast<void>(quiet);
  Read(std::string(reinterpret_cast<const char*>(data), size));
  Read(AsIor(data, size));
  return 0;
}
