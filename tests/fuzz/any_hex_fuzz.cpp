#include <BrelixMessaging.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "broker/Encoding.h"
#include "broker/TakeOut.h"

// The hexadecimal payload of an envelope, from a file or from another router's bytes. Each input is
// tried as the text itself and as the octets behind the digits, which gets past the digits at once.

namespace {

std::string AsText(const std::uint8_t* octets, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * size);
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[octets[i] >> 4];
    text += kDigits[octets[i] & 15];
  }
  return text;
}

// The string in what the text says, by way of an Any; nothing if it can't be decoded.
std::optional<std::string> StringByAny(const std::string& text) {
  CORBA::Any any;
  const char* string = nullptr;
  try {
    Encoding::DecodeAny(text, any);
    if (any >>= string) return string;
    return "";
  } catch (const std::runtime_error&) {
  } catch (const CORBA::MARSHAL&) {
  }
  return std::nullopt;
}

std::optional<std::string> StringDirectly(const std::string& text) {
  try {
    return Encoding::DecodeString(text);
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

void Decode(const std::string& text) {
  if (StringDirectly(text) != StringByAny(text)) std::abort();
  CORBA::Any any;
  try {
    Encoding::DecodeAny(text, any);
    // What was accepted can be handed on.
    const CORBA::Any copy(any);
    Encoding::EncodeAny(copy);
    // Whatever is looked for in it, it is there or not.
    const char* string = nullptr;
    const BrelixMessaging::String_seq* names = nullptr;
    const BrelixMessaging::RouterClient* status = nullptr;
    const BrelixMessaging::Configuration* record = nullptr;
    Broker::TakeOut(any, string);
    Broker::TakeOut(any, names);
    Broker::TakeOut(any, status);
    Broker::TakeOut(any, record);
  } catch (const std::runtime_error&) {
    // The one answer to a text that is none.
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Encoding::InitializeCodec();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Decode(std::string(reinterpret_cast<const char*>(data), size));
  Decode(AsText(data, size));
  return 0;
}
