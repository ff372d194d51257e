#include "broker/Encoding.h"

#include <omniORB4/cdrStream.h>
#include <omniORB4/omniORB.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "broker/CodecOrb.h"
#include "broker/HexDigits.h"
#include "broker/TakeOut.h"

namespace Encoding {
namespace {

constexpr char kEncodeFailure[] = "Encoding::EncodeAny failed to insert into TAO_OutputCDR";
constexpr char kDecodeFailure[] = "Encoding::DecodeAny failed to extract from TAO_InputCDR";

// Room for most payloads without growing.
constexpr CORBA::ULong kFirstBuffer = 2048;
// A thread keeps a buffer for decoding of at most this size.
constexpr std::size_t kKeptBytes = 64 * 1024;

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
  HexDigits::Write(bytes, size, text.data());
  return text;
}

// Words, because the stream reads in place and wants an 8-aligned beginning.
using Words = std::vector<std::uint64_t>;

// A thread's own, from call to call; gives back what is too much to keep.
class KeptWords {
 public:
  KeptWords() = default;
  ~KeptWords() {
    if (Kept().capacity() > kKeptBytes / sizeof(Words::value_type)) Words().swap(Kept());
  }
  KeptWords(const KeptWords&) = delete;
  KeptWords& operator=(const KeptWords&) = delete;

  Words& Get() { return Kept(); }

 private:
  static Words& Kept() {
    thread_local Words words;
    return words;
  }
};

void Extract(const std::string& text, CORBA::Any& any) {
  KeptWords kept;
  Words& words = kept.Get();
  const std::size_t size = text.size() / 2;
  words.resize(size / sizeof words[0] + 1);
  HexDigits::Read(text.data(), size, reinterpret_cast<unsigned char*>(words.data()));
  cdrMemoryStream stream(words.data(), size);
  Prepare(stream);
  any <<= stream;
}

// An Any with a string: its type code (an unbounded string), its length with the zero at its end,
// and its bytes, which have the code set of this process.
constexpr std::array<unsigned char, 8> kStringType{CORBA::tk_string};
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kStringStart = kStringType.size() + kLengthBytes;

std::array<unsigned char, kLengthBytes> LittleEndian(std::size_t number) {
  std::array<unsigned char, kLengthBytes> bytes{};
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(number & 0xFF);
    number >>= 8;
  }
  return bytes;
}

// Nothing if the bytes are not just such an Any.
std::optional<std::string> StringIn(const std::vector<unsigned char>& bytes) {
  if (bytes.size() <= kStringStart || bytes.back() != 0 ||
      !std::equal(kStringType.begin(), kStringType.end(), bytes.begin())) {
    return std::nullopt;
  }
  const auto length = LittleEndian(bytes.size() - kStringStart);
  if (!std::equal(length.begin(), length.end(), bytes.begin() + kStringType.size())) {
    return std::nullopt;
  }
  return reinterpret_cast<const char*>(bytes.data() + kStringStart);
}

}  // namespace

std::string EncodeAny(const CORBA::Any& any) {
  std::string text;
  const bool done = Broker::Succeeds([&] {
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
    if (Broker::Succeeds([&] { Extract(text, any); })) return;
  } catch (const std::bad_alloc&) {
    any = CORBA::Any();
    throw;
  }
  any = CORBA::Any();
  throw std::runtime_error(kDecodeFailure);
}

std::string EncodeString(const std::string& text) {
  const std::size_t size = std::strlen(text.c_str()) + 1;
  if (size > std::numeric_limits<CORBA::ULong>::max()) throw std::runtime_error(kEncodeFailure);
  const auto length = LittleEndian(size);
  std::string encoded((kStringStart + size) * 2, '\0');
  char* out = HexDigits::Write(kStringType.data(), kStringType.size(), encoded.data());
  out = HexDigits::Write(length.data(), length.size(), out);
  HexDigits::Write(reinterpret_cast<const unsigned char*>(text.c_str()), size, out);
  return encoded;
}

std::string DecodeString(std::string_view text) {
  std::vector<unsigned char> bytes(text.size() / 2);
  HexDigits::Read(text.data(), bytes.size(), bytes.data());
  if (std::optional<std::string> plain = StringIn(bytes)) return *std::move(plain);
  CORBA::Any any;
  DecodeAny(std::string(text), any);
  std::string other;
  // A value is looked into only when it is taken out.
  const bool done = Broker::Succeeds([&] {
    const char* value = nullptr;
    if (any >>= value) other = value;
  });
  if (!done) throw std::runtime_error(kDecodeFailure);
  return other;
}

void InitializeCodec() {
  Broker::MakeCodecOrb();
}

}  // namespace Encoding
