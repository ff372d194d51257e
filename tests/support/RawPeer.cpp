#include "support/RawPeer.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <stdexcept>
#include <utility>

#include "security/OpenSsl.h"

namespace TestSupport {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kReadBytes = 16384;

using OpenSsl::BioPtr;
using OpenSsl::ReadFrom;

OpenSsl::X509Ptr ReadCertificate(const std::string& pem) {
  return OpenSsl::X509Ptr(PEM_read_bio_X509(ReadFrom(pem).get(), nullptr, nullptr, nullptr));
}

bool WaitReadable(int socket, Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd entry{socket, POLLIN, 0};
  return left.count() > 0 && ::poll(&entry, 1, static_cast<int>(left.count())) > 0;
}

}  // namespace

struct RawPeer::Handles {
  BioPtr tcp;
  OpenSsl::SslContextPtr context;
  std::unique_ptr<SSL, OpenSsl::Deleter<&SSL_free>> tls;
  int socket = -1;
};

void ConfigureTls(SSL_CTX* context, const std::string& caPem, const Issued* identity) {
  const auto ca = ReadCertificate(caPem);
  X509_STORE_add_cert(SSL_CTX_get_cert_store(context), ca.get());
  SSL_CTX_add_client_CA(context, ca.get());
  if (identity == nullptr) return;
  const auto certificate = ReadCertificate(identity->certificatePem);
  const OpenSsl::KeyPtr key(
      PEM_read_bio_PrivateKey(ReadFrom(identity->keyPem).get(), nullptr, nullptr, nullptr));
  if (SSL_CTX_use_certificate(context, certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
    throw std::runtime_error("test identity can't be used");
  }
}

RawPeer::RawPeer(unsigned short port) : handles_(std::make_unique<Handles>()) {
  handles_->tcp.reset(BIO_new_connect(("127.0.0.1:" + std::to_string(port)).c_str()));
  connected_ = BIO_do_connect(handles_->tcp.get()) == 1;
  BIO_get_fd(handles_->tcp.get(), &handles_->socket);
}

RawPeer::RawPeer(unsigned short port, const TestCa& authority, const Issued* identity, int version)
    : RawPeer(port) {
  if (!connected_) return;
  // A server that never answers must not stop the test.
  const timeval patience{kPatience.count(), 0};
  ::setsockopt(handles_->socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  handles_->context.reset(SSL_CTX_new(TLS_client_method()));
  ConfigureTls(handles_->context.get(), authority.CaPem(), identity);
  SSL_CTX_set_verify(handles_->context.get(), SSL_VERIFY_PEER, nullptr);
  if (version != 0) {
    SSL_CTX_set_min_proto_version(handles_->context.get(), version);
    SSL_CTX_set_max_proto_version(handles_->context.get(), version);
    SSL_CTX_set_security_level(handles_->context.get(), 0);
  }
  handles_->tls.reset(SSL_new(handles_->context.get()));
  SSL_set_fd(handles_->tls.get(), handles_->socket);
  connected_ = SSL_connect(handles_->tls.get()) == 1;
}

RawPeer::~RawPeer() = default;
RawPeer::RawPeer(RawPeer&&) noexcept = default;

bool RawPeer::Send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const int size = static_cast<int>(bytes.size() - sent);
    const int result = handles_->tls ? SSL_write(handles_->tls.get(), bytes.data() + sent, size)
                                     : BIO_write(handles_->tcp.get(), bytes.data() + sent, size);
    if (result <= 0) return false;
    sent += static_cast<std::size_t>(result);
  }
  return true;
}

std::string RawPeer::ReadSome(Clock::time_point deadline, bool* ended) {
  *ended = false;
  const bool pending = handles_->tls && SSL_pending(handles_->tls.get()) > 0;
  if (!pending && !WaitReadable(handles_->socket, deadline)) return {};
  std::string bytes(kReadBytes, '\0');
  const int result =
      handles_->tls ? SSL_read(handles_->tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                    : BIO_read(handles_->tcp.get(), bytes.data(), static_cast<int>(bytes.size()));
  *ended = result <= 0;
  bytes.resize(result > 0 ? static_cast<std::size_t>(result) : 0);
  return bytes;
}

std::optional<std::string> RawPeer::Receive() {
  const Clock::time_point deadline = Clock::now() + kPatience;
  for (;;) {
    if (unread_.size() >= kHeaderBytes) {
      const std::size_t size = kHeaderBytes + CdrReader(unread_, 8).ULong();
      if (unread_.size() >= size) {
        std::string message = unread_.substr(0, size);
        unread_.erase(0, size);
        return message;
      }
    }
    bool ended = false;
    const std::string bytes = ReadSome(deadline, &ended);
    if (bytes.empty()) return std::nullopt;
    unread_ += bytes;
  }
}

bool RawPeer::Drop(std::size_t bytes) {
  const Clock::time_point deadline = Clock::now() + kPatience;
  for (std::size_t dropped = 0; dropped < bytes;) {
    bool ended = false;
    const std::string some = ReadSome(deadline, &ended);
    if (some.empty()) return false;
    dropped += some.size();
  }
  return true;
}

GiopReplyMessage RawPeer::Call(const std::string& objectKey, const std::string& operation,
                               const std::string& arguments) {
  Send(GiopRequest(objectKey, operation, arguments));
  const std::optional<std::string> message = Receive();
  if (!message) throw std::runtime_error("no reply");
  return ParseReply(*message);
}

bool RawPeer::WaitUntilClosed(std::chrono::milliseconds patience) {
  const Clock::time_point deadline = Clock::now() + patience;
  for (;;) {
    bool ended = false;
    const std::string bytes = ReadSome(deadline, &ended);
    if (ended) return true;
    if (bytes.empty()) return false;
  }
}

}  // namespace TestSupport
