#pragma once

#include <cstdint>
#include <string>

// Requests and replies of GIOP 1.2 by hand, little-endian: for tests that send what no ORB would.
namespace TestSupport {

// CDR, aligned from the beginning of the text.
class CdrWriter {
 public:
  CdrWriter& Octet(unsigned value);
  CdrWriter& UShort(std::uint16_t value);
  CdrWriter& ULong(std::uint32_t value);
  CdrWriter& Text(const std::string& value);  // an IDL string
  CdrWriter& Raw(const std::string& bytes);   // as they are
  CdrWriter& Align(std::size_t alignment);
  const std::string& Bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

class CdrReader {
 public:
  explicit CdrReader(std::string bytes, std::size_t position = 0);
  // Each throws std::runtime_error at the end of the bytes.
  unsigned Octet();
  std::uint16_t UShort();
  std::uint32_t ULong();
  std::string Text();
  std::string Sequence();  // of octets
  std::string Rest() const { return bytes_.substr(position_); }

 private:
  void Align(std::size_t alignment);
  std::string Take(std::size_t size);

  std::string bytes_;
  std::size_t position_;
};

enum GiopType : unsigned {
  kGiopRequest = 0,
  kGiopReply = 1,
  kGiopCancelRequest = 2,
  kGiopLocateRequest = 3,
  kGiopCloseConnection = 5,
  kGiopMessageError = 6,
  kGiopFragment = 7,
};

// The 12 octets in front of a message; `flags` 1 is little-endian, 3 besides announces fragments.
std::string GiopHeader(unsigned type, std::uint32_t bodySize, unsigned flags = 1);
// A whole request; `arguments` are CDR that begins 8-aligned.
std::string GiopRequest(const std::string& objectKey, const std::string& operation,
                        const std::string& arguments = {}, std::uint32_t requestId = 2);

struct GiopReplyMessage {
  enum Status : std::uint32_t { kNoException = 0, kUserException = 1, kSystemException = 2 };
  std::uint32_t status = kNoException;
  std::string exceptionId;  // of either kind
  std::string body;         // the results, if there is no exception
};
// Of a whole message. Throws std::runtime_error if it is no reply.
GiopReplyMessage ParseReply(const std::string& message);

// The object key in the first profile of a stringified reference.
std::string ObjectKeyOf(const std::string& ior);
// The port in it; 0 for one that listens with TLS alone.
std::uint16_t PortOf(const std::string& ior);
// The port for TLS; 0 if there is none.
std::uint16_t TlsPortOf(const std::string& ior);

}  // namespace TestSupport
