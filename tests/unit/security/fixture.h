#pragma once

#include <ace/SOCK_Stream.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/CurrentCall.h"
#include "security/Celdane.h"
#include "security/CertificateContext.h"
#include "security/OpenSsl.h"
#include "security/Roles.h"
#include "support/TestCertificates.h"

namespace MessageRouter {

// Contexts beside the one of the process.
class CertificateContextAccess {
 public:
  static std::unique_ptr<CertificateContext> Make() {
    return std::unique_ptr<CertificateContext>(new CertificateContext);
  }
};

}  // namespace MessageRouter

namespace SecurityTest {

// One authority for the whole program.
TestSupport::TestCa& Ca();

OpenSsl::X509Ptr Decode(const std::string& pem);
Celdane::Certificate CertificateOf(const std::string& pem);
Celdane::RSAKey KeyOf(const std::string& pem);

// A TLS call of somebody with that certificate; null for none. It must outlive the call.
Broker::Call TlsCall(const char* operation, X509* certificate);

// Puts files of a store into a folder, which is made if it is missing.
void WriteStore(const std::string& folder, const std::string& caPem,
                const TestSupport::Issued& identity);
void WriteText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);

// A context with that identity (empty: none), at a security level that refuses nothing, that trusts
// the authority: a peer for handshakes.
OpenSsl::SslContextPtr PeerContext(const TestSupport::Issued& identity,
                                   const std::string& caPem = Ca().CaPem());

using SslPtr = std::unique_ptr<SSL, OpenSsl::Deleter<&SSL_free>>;

// Both ends of a TCP connection to an address of this host. Neither end blocks.
class TcpPair {
 public:
  explicit TcpPair(std::uint32_t address = 0x7F000001);
  ~TcpPair();
  TcpPair(const TcpPair&) = delete;
  TcpPair& operator=(const TcpPair&) = delete;

  int Server() const { return static_cast<int>(server_.get_handle()); }
  int Client() const { return static_cast<int>(client_.get_handle()); }
  void CloseServer() { server_.close(); }

 private:
  ACE_SOCK_Stream server_;
  ACE_SOCK_Stream client_;
};

// A handshake within the process. Both ends have to be done for it to succeed.
class Handshake {
 public:
  Handshake(SSL_CTX* server, SSL_CTX* client, SSL_SESSION* session = nullptr);
  // Over sockets, which must outlive it.
  Handshake(SSL_CTX* server, SSL_CTX* client, const TcpPair& sockets);

  bool Succeeded() const { return succeeded_; }
  SSL* Server() const { return server_.get(); }
  SSL* Client() const { return client_.get(); }
  // Moves one octet from server to client, so that all that the server had to say is read.
  bool Talk();

 private:
  void Run();

  SslPtr server_;
  SslPtr client_;
  bool succeeded_ = false;
};

}  // namespace SecurityTest
