#pragma once

#include <cstdint>
#include <string>

namespace ParentTests {

// Writes IOR texts octet by octet, whole ones and broken ones.
class CdrText {
 public:
  explicit CdrText(bool littleEndian = true) : little_(littleEndian) { Octet(little_ ? 1 : 0); }

  CdrText& Octet(unsigned value) {
    octets_ += static_cast<char>(value);
    return *this;
  }
  CdrText& UShort(std::uint16_t value) { return Number(value, 2); }
  CdrText& ULong(std::uint32_t value) { return Number(value, 4); }
  CdrText& String(const std::string& text) {
    ULong(static_cast<std::uint32_t>(text.size() + 1));
    octets_ += text;
    return Octet(0);
  }
  CdrText& Raw(const std::string& octets) {
    octets_ += octets;
    return *this;
  }
  CdrText& Encapsulation(const CdrText& inner) {
    ULong(static_cast<std::uint32_t>(inner.octets_.size()));
    return Raw(inner.octets_);
  }

  const std::string& Octets() const { return octets_; }
  std::string Ior() const { return "IOR:" + Hex(); }
  std::string Hex() const {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char octet : octets_) {
      const auto value = static_cast<unsigned char>(octet);
      text += kDigits[value >> 4];
      text += kDigits[value & 15];
    }
    return text;
  }

 private:
  CdrText& Number(std::uint32_t value, unsigned size) {
    while (octets_.size() % size != 0) Octet(0);
    for (unsigned i = 0; i < size; ++i) {
      Octet(value >> 8 * (little_ ? i : size - 1 - i) & 0xFF);
    }
    return *this;
  }

  bool little_;
  std::string octets_;
};

// The body of an IIOP profile; an object key follows, as in real ones.
inline CdrText Profile(const std::string& host, std::uint16_t port, unsigned minor = 2,
                       bool littleEndian = true) {
  return CdrText(littleEndian).Octet(1).Octet(minor).String(host).UShort(port).ULong(2).Raw("ab");
}

// An IOR up to its profile count.
inline CdrText Head(std::uint32_t profiles, bool littleEndian = true) {
  return CdrText(littleEndian).String("IDL:BrelixMessaging/MessageRouter:1.0").ULong(profiles);
}

inline std::string IorOf(const std::string& host, std::uint16_t port = 1234, unsigned minor = 2) {
  return Head(1).ULong(0).Encapsulation(Profile(host, port, minor)).Ior();
}

}  // namespace ParentTests
