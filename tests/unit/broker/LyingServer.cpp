#include "LyingServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "TestServer.h"
#include "security/OpenSsl.h"
#include "support/Giop.h"
#include "support/RawPeer.h"

namespace BrokerTest {
namespace {

using TestSupport::CdrReader;
using TestSupport::CdrWriter;

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kTypeAt = 7;
constexpr std::size_t kSizeAt = 8;
constexpr unsigned kGiopLocateReply = 4;
constexpr std::uint32_t kObjectHere = 1;

std::string Read(SSL* tls, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t have = 0;
  while (have < size) {
    const int count = SSL_read(tls, bytes.data() + have, static_cast<int>(size - have));
    if (count <= 0) throw std::runtime_error("the connection has ended");
    have += static_cast<std::size_t>(count);
  }
  return bytes;
}

void Write(SSL* tls, const std::string& bytes) {
  if (!bytes.empty()) SSL_write(tls, bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace

LyingServer::LyingServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const general = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, general, size) != 0 || ::listen(listener_, SOMAXCONN) != 0 ||
      ::getsockname(listener_, general, &size) != 0) {
    throw std::runtime_error("no port to listen on");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

LyingServer::~LyingServer() {
  ::shutdown(listener_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

void LyingServer::Run() {
  while (true) {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    const timeval patience{TestSupport::RawPeer::kPatience.count(), 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    try {
      Serve(connection);
    } catch (const std::runtime_error&) {  // the client has gone
    }
    ::close(connection);
  }
}

void LyingServer::Serve(int connection) {
  const OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  TestSupport::ConfigureTls(context.get(), Authority().CaPem(), &PeerIdentity());
  const std::unique_ptr<SSL, OpenSsl::Deleter<&SSL_free>> tls(SSL_new(context.get()));
  SSL_set_fd(tls.get(), connection);
  if (SSL_accept(tls.get()) != 1) return;
  while (true) {
    const std::string header = Read(tls.get(), kHeaderBytes);
    CdrReader size(header, kSizeAt);
    const std::string body = Read(tls.get(), size.ULong());
    const std::uint32_t id = CdrReader(body).ULong();
    if (header[kTypeAt] == static_cast<char>(TestSupport::kGiopLocateRequest)) {
      Write(tls.get(), TestSupport::GiopHeader(kGiopLocateReply, 8) +
                           CdrWriter().ULong(id).ULong(kObjectHere).Bytes());
    } else if (header[kTypeAt] == static_cast<char>(TestSupport::kGiopRequest)) {
      const Then then = then_;  // the next one may be set as soon as the answer is there
      Write(tls.get(), answer_(id));
      if (then == Then::GoOn) continue;
      SSL_shutdown(tls.get());
      return;
    }
  }
}

}  // namespace BrokerTest
