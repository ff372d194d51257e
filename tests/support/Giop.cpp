#include "support/Giop.h"

#include <cstring>
#include <stdexcept>

namespace TestSupport {
namespace {

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kArgumentAlignment = 8;
constexpr unsigned kTwoWay = 3;
constexpr char kIorPrefix[] = "IOR:";
constexpr std::uint32_t kTlsComponent = 20;

template <class T>
std::string LittleEndian(T value) {
  std::string bytes;
  for (std::size_t i = 0; i < sizeof value; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

struct Profile {
  std::uint16_t port = 0;
  std::uint16_t tlsPort = 0;
  std::string objectKey;
};

Profile ReadProfile(const std::string& ior) {
  if (ior.compare(0, std::strlen(kIorPrefix), kIorPrefix) != 0) {
    throw std::runtime_error("not a reference");
  }
  std::string bytes;
  for (std::size_t i = std::strlen(kIorPrefix); i + 1 < ior.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(ior.substr(i, 2), nullptr, 16));
  }
  CdrReader reader(bytes, 1);            // after the byte order
  reader.Text();                         // type id
  reader.ULong();                        // count of profiles
  reader.ULong();                        // tag
  CdrReader body(reader.Sequence(), 3);  // after the byte order and the version
  body.Text();                           // host
  Profile profile;
  profile.port = body.UShort();
  profile.objectKey = body.Sequence();
  for (std::uint32_t components = body.ULong(); components > 0; --components) {
    const std::uint32_t tag = body.ULong();
    CdrReader component(body.Sequence(), 1);  // after the byte order
    if (tag != kTlsComponent) continue;
    component.UShort();  // what the target supports
    component.UShort();  // what it requires
    profile.tlsPort = component.UShort();
  }
  return profile;
}

}  // namespace

CdrWriter& CdrWriter::Align(std::size_t alignment) {
  while (bytes_.size() % alignment != 0) bytes_ += '\0';
  return *this;
}

CdrWriter& CdrWriter::Octet(unsigned value) {
  bytes_ += static_cast<char>(value);
  return *this;
}

CdrWriter& CdrWriter::UShort(std::uint16_t value) {
  Align(sizeof value);
  bytes_ += LittleEndian(value);
  return *this;
}

CdrWriter& CdrWriter::ULong(std::uint32_t value) {
  Align(sizeof value);
  bytes_ += LittleEndian(value);
  return *this;
}

CdrWriter& CdrWriter::Text(const std::string& value) {
  ULong(static_cast<std::uint32_t>(value.size() + 1));
  bytes_ += value;
  bytes_ += '\0';
  return *this;
}

CdrWriter& CdrWriter::Raw(const std::string& bytes) {
  bytes_ += bytes;
  return *this;
}

CdrReader::CdrReader(std::string bytes, std::size_t position)
    : bytes_(std::move(bytes)), position_(position) {}

void CdrReader::Align(std::size_t alignment) {
  position_ += (alignment - position_ % alignment) % alignment;
}

std::string CdrReader::Take(std::size_t size) {
  if (position_ > bytes_.size() || size > bytes_.size() - position_) {
    throw std::runtime_error("the bytes end too early");
  }
  const std::string part = bytes_.substr(position_, size);
  position_ += size;
  return part;
}

unsigned CdrReader::Octet() {
  return static_cast<unsigned char>(Take(1)[0]);
}

std::uint16_t CdrReader::UShort() {
  Align(2);
  const unsigned low = Octet();
  return static_cast<std::uint16_t>(low | Octet() << 8);
}

std::uint32_t CdrReader::ULong() {
  Align(4);
  std::uint32_t value = 0;
  for (unsigned shift = 0; shift < 32; shift += 8) value |= Octet() << shift;
  return value;
}

std::string CdrReader::Text() {
  std::string text = Sequence();
  if (!text.empty()) text.pop_back();
  return text;
}

std::string CdrReader::Sequence() {
  const std::uint32_t size = ULong();
  return Take(size);
}

std::string GiopHeader(unsigned type, std::uint32_t bodySize, unsigned flags) {
  return CdrWriter().Raw("GIOP").Octet(1).Octet(2).Octet(flags).Octet(type).ULong(bodySize).Bytes();
}

std::string GiopRequest(const std::string& objectKey, const std::string& operation,
                        const std::string& arguments, std::uint32_t requestId) {
  CdrWriter body;
  body.ULong(requestId).Octet(kTwoWay).Raw(std::string(3, '\0'));
  body.UShort(0).ULong(static_cast<std::uint32_t>(objectKey.size())).Raw(objectKey);
  body.Text(operation).ULong(0);
  if (!arguments.empty()) {
    while ((body.Bytes().size() + kHeaderBytes) % kArgumentAlignment != 0) body.Octet(0);
    body.Raw(arguments);
  }
  return GiopHeader(kGiopRequest, static_cast<std::uint32_t>(body.Bytes().size())) + body.Bytes();
}

GiopReplyMessage ParseReply(const std::string& message) {
  if (message.size() < kHeaderBytes || message.compare(0, 4, "GIOP") != 0 ||
      message[7] != kGiopReply) {
    throw std::runtime_error("not a reply");
  }
  CdrReader reader(message, kHeaderBytes);
  GiopReplyMessage reply;
  reader.ULong();  // request id
  reply.status = reader.ULong();
  for (std::uint32_t contexts = reader.ULong(); contexts > 0; --contexts) {
    reader.ULong();
    reader.Sequence();
  }
  std::string rest = reader.Rest();
  const std::size_t at = message.size() - rest.size();
  const std::size_t padding = (kArgumentAlignment - at % kArgumentAlignment) % kArgumentAlignment;
  reply.body = rest.size() > padding ? rest.substr(padding) : "";
  if (reply.status != GiopReplyMessage::kNoException) {
    reply.exceptionId = CdrReader(reply.body).Text();
  }
  return reply;
}

std::string ObjectKeyOf(const std::string& ior) {
  return ReadProfile(ior).objectKey;
}

std::uint16_t PortOf(const std::string& ior) {
  return ReadProfile(ior).port;
}

std::uint16_t TlsPortOf(const std::string& ior) {
  return ReadProfile(ior).tlsPort;
}

}  // namespace TestSupport
