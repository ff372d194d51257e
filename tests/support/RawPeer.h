#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "support/Giop.h"
#include "support/TestCertificates.h"

namespace TestSupport {

// The other end of one connection to a port of this machine, without any ORB: it sends whatever a
// test wants to be sent, over TLS or without.
// Threads: one at a time.
class RawPeer {
 public:
  static constexpr std::chrono::seconds kPatience{20};  // no test waits longer for anything

  // TCP alone.
  explicit RawPeer(unsigned short port);
  // With TLS, trusting the authority. `identity` null: without a certificate. `version`: this one
  // of OpenSSL's protocol versions alone, however weak; 0: what the system allows. Connected() is
  // false if the handshake fails.
  RawPeer(unsigned short port, const TestCa& authority, const Issued* identity, int version = 0);
  ~RawPeer();
  RawPeer(RawPeer&&) noexcept;

  bool Connected() const { return connected_; }
  // False if the other end has closed.
  bool Send(const std::string& bytes);
  // One whole GIOP message. Nothing if the connection ends first.
  std::optional<std::string> Receive();
  // At least so many bytes of what comes, dropped. False if the connection ends first.
  bool Drop(std::size_t bytes);
  // A request and its reply. Throws std::runtime_error if the connection ends first.
  GiopReplyMessage Call(const std::string& objectKey, const std::string& operation,
                        const std::string& arguments = {});
  // Waits for the other end to close; what comes before that is dropped. False: it doesn't.
  bool WaitUntilClosed(std::chrono::milliseconds patience = kPatience);

 private:
  struct Handles;

  // Some bytes, at least one. Empty if the connection ends or the time is over.
  std::string ReadSome(std::chrono::steady_clock::time_point deadline, bool* ended);

  std::unique_ptr<Handles> handles_;
  bool connected_ = false;
  std::string unread_;
};

// Puts an authority and an identity (may be null) into a TLS context.
void ConfigureTls(SSL_CTX* context, const std::string& caPem, const Issued* identity);

}  // namespace TestSupport
