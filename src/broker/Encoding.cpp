#include "broker/Encoding.h"

#include <omniORB4/cdrStream.h>
#include <omniORB4/omniORB.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "broker/CodecOrb.h"

namespace Encoding {
namespace {

constexpr char kEncodeFailure[] = "Encoding::EncodeAny failed to insert into TAO_OutputCDR";
constexpr char kDecodeFailure[] = "Encoding::DecodeAny failed to extract from TAO_InputCDR";

// Room for most payloads without growing.
constexpr CORBA::ULong kFirstBuffer = 2048;
// A thread keeps a buffer for decoding of at most this size.
constexpr std::size_t kKeptBytes = 64 * 1024;

using DigitPair = std::array<char, 2>;

constexpr std::array<DigitPair, 256> MakeDigitPairs() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<DigitPair, 256> pairs{};
  for (std::size_t byte = 0; byte < pairs.size(); ++byte) {
    pairs[byte] = {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return pairs;
}

// What a character counts as a digit. Characters that are none give wrong bytes and are not
// refused.
constexpr std::array<std::uint8_t, 256> MakeDigitValues() {
  std::array<std::uint8_t, 256> values{};
  for (int character = 0; character < 256; ++character) {
    int value = character - '7';
    if (character >= '0' && character <= '9') value = character - '0';
    if (character >= 'a' && character <= 'z') value = character - 'W';
    values[static_cast<std::size_t>(character)] = static_cast<std::uint8_t>(value);
  }
  return values;
}

constexpr std::array<DigitPair, 256> kDigitPairs = MakeDigitPairs();
constexpr std::array<std::uint8_t, 256> kDigitValues = MakeDigitValues();

// Little-endian whatever the machine is, and the code sets of GIOP 1.2. Without a wide one, wide
// strings would be refused.
void Prepare(cdrMemoryStream& stream) {
  using omni::omniCodeSet;
  static constexpr GIOP::Version kVersion{1, 2};
  static omniCodeSet::TCS_C* const narrow = omniCodeSet::getTCS_C(omniCodeSet::ID_8859_1, kVersion);
  static omniCodeSet::TCS_W* const wide = omniCodeSet::getTCS_W(omniCodeSet::ID_UTF_16, kVersion);
  stream.setByteSwapFlag(1);
  stream.TCS_C(narrow);
  stream.TCS_W(wide);
}

std::string ToText(const unsigned char* bytes, std::size_t size) {
  std::string text(size * 2, '\0');
  char* out = text.data();
  for (std::size_t i = 0; i < size; ++i, out += sizeof(DigitPair)) {
    std::memcpy(out, kDigitPairs[bytes[i]].data(), sizeof(DigitPair));
  }
  return text;
}

void ToBytes(const std::string& text, unsigned char* bytes, std::size_t size) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < size; ++i, in += 2) {
    bytes[i] = static_cast<unsigned char>((kDigitValues[in[0]] << 4) + kDigitValues[in[1]]);
  }
}

void Extract(const std::string& text, CORBA::Any& any) {
  // Words, because the stream reads in place and wants an 8-aligned beginning.
  thread_local std::vector<std::uint64_t> words;
  const std::size_t size = text.size() / 2;
  words.resize(size / sizeof words[0] + 1);
  ToBytes(text, reinterpret_cast<unsigned char*>(words.data()), size);
  cdrMemoryStream stream(words.data(), size);
  Prepare(stream);
  any <<= stream;
  if (words.size() > kKeptBytes / sizeof words[0]) std::vector<std::uint64_t>().swap(words);
}

// Whether it could be done. Whatever else the ORB may throw is a fault of what it was given; too
// little memory is not.
template <class Function>
bool Succeeds(Function&& function) {
  try {
    function();
    return true;
  } catch (const CORBA::NO_MEMORY&) {
    throw std::bad_alloc();
  } catch (const CORBA::Exception&) {
  } catch (const omniORB::fatalException&) {  // not a std::exception
  } catch (const std::length_error&) {
  }
  return false;
}

}  // namespace

std::string EncodeAny(const CORBA::Any& any) {
  std::string text;
  const bool done = Succeeds([&] {
    cdrMemoryStream stream(kFirstBuffer, true);  // true: the padding between values is zero
    Prepare(stream);
    any >>= stream;
    text = ToText(static_cast<const unsigned char*>(stream.bufPtr()), stream.bufSize());
  });
  if (!done) throw std::runtime_error(kEncodeFailure);
  return text;
}

void DecodeAny(const std::string& text, CORBA::Any& any) {
  // What was read in part has a type and no value, which the ORB could not even copy.
  try {
    if (Succeeds([&] { Extract(text, any); })) return;
  } catch (const std::bad_alloc&) {
    any = CORBA::Any();
    throw;
  }
  any = CORBA::Any();
  throw std::runtime_error(kDecodeFailure);
}

void InitializeCodec() {
  Broker::MakeCodecOrb();
}

}  // namespace Encoding
