#include "security/TlsWatch.h"

#include <string>
#include <utility>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "platform/Network.h"

namespace MessageRouter {
namespace {

constexpr char kHostIpToParent[] = "HostIPToParent";
constexpr int kCloseNotify = 256;  // level 1 (warning), description 0
constexpr int kFatal = 2;
constexpr int kUnknownCa = 48;
// Tells a remembered address from a connection of which none is known.
constexpr std::uintptr_t kRemembered = std::uintptr_t{1} << 32;

int SocketOf(const SSL* ssl) {
  BIO* const bio = SSL_get_rbio(ssl);
  int socket = -1;
  if (bio == nullptr || BIO_get_fd(bio, &socket) < 0) return -1;
  return socket;
}

std::optional<std::uint32_t> AddressOf(std::optional<Platform::SocketAddress> socket) {
  if (!socket) return std::nullopt;
  return socket->address;
}

std::optional<std::uint32_t> PresentPeer(const SSL* ssl) {
  const int socket = SocketOf(ssl);
  return socket < 0 ? std::nullopt : AddressOf(Platform::PeerAddress(socket));
}

int PeerSlot() {
  static const int slot = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return slot;
}

// The address itself stands where OpenSSL keeps a pointer: nothing to allocate, nothing to free.
void RememberPeer(const SSL* ssl) {
  const std::optional<std::uint32_t> peer = PresentPeer(ssl);
  if (!peer) return;
  SSL_set_ex_data(const_cast<SSL*>(ssl), PeerSlot(),
                  reinterpret_cast<void*>(kRemembered | std::uintptr_t{*peer}));
}

std::optional<std::uint32_t> RememberedPeer(const SSL* ssl) {
  const auto value = reinterpret_cast<std::uintptr_t>(SSL_get_ex_data(ssl, PeerSlot()));
  if (value == 0) return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

std::string Dotted(std::uint32_t address) {
  return address == 0 ? "unknown" : Platform::DottedAddress(address);
}

}  // namespace

void TlsWatch::OnEvent(const SSL* ssl, int where, int ret) {
  if ((where & SSL_CB_HANDSHAKE_START) != 0) RememberPeer(ssl);
  if ((where & SSL_CB_ALERT) != 0 && ret != kCloseNotify) {
    OnAlert(ssl, ret);
  } else if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
    OnHandshakeDone(ssl);
  }
}

void TlsWatch::OnAlert(const SSL* ssl, int alert) {
  // When an alert is read the peer has often closed already, and the system knows it no longer.
  std::optional<std::uint32_t> peer = PresentPeer(ssl);
  if (!peer) peer = RememberedPeer(ssl);
  if (!peer) return;
  LogWarning("SSL connection alert, peer address %s\n", Dotted(*peer).c_str());
  if (((alert >> 8) & 0xFF) != kFatal || (alert & 0xFF) != kUnknownCa) return;
  LogWarning("Cannot verify peer's SSL certificate, unknown CA\n");
  ThreadHelper::Guard guard(mutex_);
  if (guard && reports_.size() < kMaximumReports) reports_.push_back(*peer);
}

void TlsWatch::OnHandshakeDone(const SSL* ssl) {
  const std::uint32_t parent = parentAddress_;
  if (parent == 0 || PresentPeer(ssl) != parent) return;
  const std::optional<std::uint32_t> local = AddressOf(Platform::LocalAddress(SocketOf(ssl)));
  LogInfo("SSL handshake done, local IP address = %s", Dotted(local.value_or(0)).c_str());
  ThreadHelper::Guard guard(mutex_);
  // The parent may have been forgotten meanwhile.
  if (guard && parentAddress_ == parent) addressToParent_ = local.value_or(0);
}

void TlsWatch::Tick(const ReportInvalidCertificate& report) {
  std::vector<std::uint32_t> reports;
  std::optional<std::uint32_t> addressToParent;
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard) return;
    reports.swap(reports_);
    addressToParent = std::exchange(addressToParent_, std::nullopt);
  }
  if (addressToParent) SetConfigInt(kHostIpToParent, *addressToParent);
  if (!report) return;
  for (const std::uint32_t peer : reports) report(peer);
}

void TlsWatch::SetParentAddress(std::uint32_t address) {
  parentAddress_ = address;
}

void TlsWatch::ResetParentAddress() {
  {
    ThreadHelper::Guard guard(mutex_);
    parentAddress_ = 0;
    if (guard) addressToParent_.reset();
  }
  SetConfigInt(kHostIpToParent, 0);
}

}  // namespace MessageRouter
