#include "fixture.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <openssl/pem.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace SecurityTest {
namespace {

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(OpenSsl::FailureText(what));
}

OpenSsl::KeyPtr DecodeKey(const std::string& pem) {
  const OpenSsl::BioPtr stream = OpenSsl::ReadFrom(pem);
  return OpenSsl::KeyPtr(PEM_read_bio_PrivateKey(stream.get(), nullptr, nullptr, nullptr));
}

bool Step(SSL* ssl) {
  return SSL_do_handshake(ssl) == 1;
}

}  // namespace

TestSupport::TestCa& Ca() {
  static TestSupport::TestCa ca;
  return ca;
}

OpenSsl::X509Ptr Decode(const std::string& pem) {
  const OpenSsl::BioPtr stream = OpenSsl::ReadFrom(pem);
  return OpenSsl::X509Ptr(PEM_read_bio_X509(stream.get(), nullptr, nullptr, nullptr));
}

Celdane::Certificate CertificateOf(const std::string& pem) {
  return Celdane::Certificate(Decode(pem).release());
}

Celdane::RSAKey KeyOf(const std::string& pem) {
  return Celdane::RSAKey(DecodeKey(pem).release());
}

Broker::Call TlsCall(const char* operation, X509* certificate) {
  Broker::Call call;
  call.operation = operation;
  call.tls = true;
  call.certificate = certificate;
  return call;
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void WriteStore(const std::string& folder, const std::string& caPem,
                const TestSupport::Issued& identity) {
  std::filesystem::create_directories(folder);
  const auto write = [&](const char* name, const std::string& text) {
    if (text.empty()) return;
    WriteText(folder + name, text);
    std::filesystem::permissions(
        folder + name, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  };
  write("/ca.pem", caPem);
  write("/certificate.pem", identity.certificatePem);
  write("/key.pem", identity.keyPem);
}

OpenSsl::SslContextPtr PeerContext(const TestSupport::Issued& identity, const std::string& caPem) {
  OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_method()));
  Require(context != nullptr, "context");
  SSL_CTX_set_security_level(context.get(), 0);
  const OpenSsl::X509Ptr ca = Decode(caPem);
  Require(X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), ca.get()) == 1, "CA");
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  if (!identity.certificatePem.empty()) {
    const OpenSsl::X509Ptr certificate = Decode(identity.certificatePem);
    const OpenSsl::KeyPtr key = DecodeKey(identity.keyPem);
    Require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1, "certificate");
    Require(SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1, "key");
  }
  return context;
}

TcpPair::TcpPair(std::uint32_t address) {
  ACE_SOCK_Acceptor acceptor(ACE_INET_Addr(static_cast<unsigned short>(0), address));
  ACE_INET_Addr bound;
  acceptor.get_local_addr(bound);
  ACE_SOCK_Connector connector;
  Require(connector.connect(client_, bound) == 0 && acceptor.accept(server_) == 0, "connection");
  acceptor.close();
  client_.enable(ACE_NONBLOCK);
  server_.enable(ACE_NONBLOCK);
}

TcpPair::~TcpPair() {
  client_.close();
  server_.close();
}

Handshake::Handshake(SSL_CTX* server, SSL_CTX* client, SSL_SESSION* session)
    : server_(SSL_new(server)), client_(SSL_new(client)) {
  BIO* serverEnd = nullptr;
  BIO* clientEnd = nullptr;
  Require(server_ && client_ && BIO_new_bio_pair(&serverEnd, 0, &clientEnd, 0) == 1, "pair");
  SSL_set_bio(server_.get(), serverEnd, serverEnd);
  SSL_set_bio(client_.get(), clientEnd, clientEnd);
  if (session != nullptr) SSL_set_session(client_.get(), session);
  Run();
}

Handshake::Handshake(SSL_CTX* server, SSL_CTX* client, const TcpPair& sockets)
    : server_(SSL_new(server)), client_(SSL_new(client)) {
  Require(server_ && client_ && SSL_set_fd(server_.get(), sockets.Server()) == 1 &&
              SSL_set_fd(client_.get(), sockets.Client()) == 1,
          "sockets");
  Run();
}

void Handshake::Run() {
  SSL_set_accept_state(server_.get());
  SSL_set_connect_state(client_.get());
  constexpr int kMoreThanAnyHandshakeTakes = 20;
  for (int round = 0; round < kMoreThanAnyHandshakeTakes && !succeeded_; ++round) {
    const bool clientDone = Step(client_.get());
    const bool serverDone = Step(server_.get());
    succeeded_ = clientDone && serverDone;
  }
  ERR_clear_error();
}

bool Handshake::Talk() {
  char octet = 'x';
  const bool passed =
      SSL_write(server_.get(), &octet, 1) == 1 && SSL_read(client_.get(), &octet, 1) == 1;
  ERR_clear_error();
  return passed;
}

}  // namespace SecurityTest
