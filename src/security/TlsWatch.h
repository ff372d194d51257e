#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "threads/Mutex.h"

namespace MessageRouter {

// Watches the TLS handshakes of the process: reports trouble with certificates, and learns which
// local address leads to the parent. Addresses are IPv4 in host byte order.
//
// OnEvent may run on any thread, within any call of OpenSSL: it logs and takes notes. Tick, on the
// main thread, acts on them.
class TlsWatch {
 public:
  // A peer's certificate authority did not know ours, or ours the peer's: on the Tick, in the order
  // of events, once for each.
  using ReportInvalidCertificate = std::function<void(std::uint32_t peerAddress)>;

  // The arguments of OpenSSL's information callback.
  void OnEvent(const SSL* ssl, int where, int ret);
  void Tick(const ReportInvalidCertificate& report);

  void SetParentAddress(std::uint32_t address);
  // Forgets the parent, and what has been noted about it.
  void ResetParentAddress();

  // More reports than this wait for one Tick only under attack; the rest is dropped.
  static constexpr std::size_t kMaximumReports = 4096;

 private:
  void OnAlert(const SSL* ssl, int alert);
  void OnHandshakeDone(const SSL* ssl);

  std::atomic<std::uint32_t> parentAddress_{0};  // 0: none

  // Leaf lock.
  ThreadHelper::Mutex mutex_;
  std::vector<std::uint32_t> reports_ GUARDED_BY(mutex_);
  std::optional<std::uint32_t> addressToParent_ GUARDED_BY(mutex_);
};

}  // namespace MessageRouter
