#pragma once

#include <omniORB4/CORBA.h>

#include <string>
#include <vector>

#include "support/Giop.h"

// Type codes put together by hand, right or wrong, as CDR in little-endian order.
namespace BrokerTest {

using TestSupport::CdrWriter;

inline std::string Simple(std::uint32_t kind) {
  return CdrWriter().ULong(kind).Bytes();
}

inline std::string StringType(std::uint32_t bound = 0) {
  return CdrWriter().ULong(CORBA::tk_string).ULong(bound).Bytes();
}

// Kind, length and body; the body begins with its byte order.
inline std::string Encapsulated(std::uint32_t kind, const CdrWriter& body) {
  return CdrWriter()
      .ULong(kind)
      .ULong(static_cast<std::uint32_t>(body.Bytes().size()))
      .Raw(body.Bytes())
      .Bytes();
}

inline CdrWriter Body() {
  return CdrWriter().Octet(1);
}
inline CdrWriter NamedBody() {
  return Body().Text("IDL:x:1.0").Text("x");
}

inline std::string Sequence(const std::string& element, std::uint32_t bound = 0) {
  return Encapsulated(CORBA::tk_sequence, Body().Align(4).Raw(element).ULong(bound));
}

inline std::string Array(const std::string& element, std::uint32_t length) {
  return Encapsulated(CORBA::tk_array, Body().Align(4).Raw(element).ULong(length));
}

inline std::string Struct(const std::vector<std::string>& members) {
  CdrWriter body = NamedBody().ULong(static_cast<std::uint32_t>(members.size()));
  for (const std::string& member : members) body.Text("m").Align(4).Raw(member);
  return Encapsulated(CORBA::tk_struct, body);
}

inline std::string Alias(const std::string& content) {
  return Encapsulated(CORBA::tk_alias, NamedBody().Align(4).Raw(content));
}

}  // namespace BrokerTest
