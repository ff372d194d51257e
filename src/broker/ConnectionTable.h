#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <map>

#include "broker/Connection.h"
#include "threads/Mutex.h"

namespace Broker {

// The TLS connections of the process's ORB, as OpenSSL tells of them, and the bounds on those whose
// other end is not known: handshakes that don't finish, and callers without a certificate.
// A connection that has to go is shut at its socket; the ORB notices and cleans up by itself. The
// socket is that of the connection as long as its TLS object lives, and the table lets go of it
// just before.
// Threads: any.
class ConnectionTable {
 public:
  struct Counts {
    std::size_t handshakes = 0;
    std::size_t strangers = 0;
    std::uint64_t shut = 0;  // since the process began
  };

  static ConnectionTable& Instance();

  // Connections of this context are watched from now on; null ends it. The context's own callbacks
  // are taken: `info` is called besides.
  void Watch(SSL_CTX* context, void (*info)(const SSL*, int where, int ret));

  // For connections whose handshake begins from now on (OrbSettings).
  void SetPeerLimits(unsigned keepAliveSeconds, unsigned peerTimeoutSeconds);

  // The connection of a TLS object; null if it is not one of the ORB's.
  static Connection* Of(const SSL* tls);
  // Breaks it. The caller makes sure that its TLS object lives.
  void Shut(Connection& connection);

  // Shuts handshakes that take too long, and strangers that do nothing.
  void EnforceDeadlines();
  // Shuts all handshakes and strangers, so that none of them holds up the end of the ORB.
  void ShutUnknown();

  Counts Count() const;

 private:
  using Connections = std::map<std::uint64_t, Connection*>;  // the oldest first

  ConnectionTable() = default;

  static void OnNew(void* tls, void* value, CRYPTO_EX_DATA* data, int index, long argument,
                    void* pointer);
  static void OnFree(void* tls, void* value, CRYPTO_EX_DATA* data, int index, long argument,
                     void* pointer);
  static void OnInfo(const SSL* tls, int where, int ret);
  static void OnRecord(int written, int version, int type, const void* content, std::size_t size,
                       SSL* tls, void* argument);
  static int Index();

  void Add(SSL* tls);
  void Remove(Connection* connection);
  void HandshakeBegins(Connection& connection);
  void HandshakeEnds(Connection& connection);
  void MakeRoomForHandshake();
  bool ShutOneHandshake(bool whateverItsAge);
  Connection* LeastWorthy(const Connections& connections) REQUIRES(mutex_);

  std::atomic<SSL_CTX*> context_{nullptr};
  std::atomic<void (*)(const SSL*, int, int)> info_{nullptr};
  std::atomic<unsigned> keepAliveSeconds_{0};
  std::atomic<unsigned> peerTimeoutSeconds_{0};
  std::atomic<std::uint64_t> shut_{0};
  std::atomic<std::uint64_t> dying_{0};  // shut, and not cleaned up yet

  // Taken inside the ORB's transport lock; nothing is taken inside it.
  mutable ThreadHelper::Mutex mutex_;
  std::uint64_t made_ GUARDED_BY(mutex_) = 0;
  Connections handshakes_ GUARDED_BY(mutex_);
  Connections strangers_ GUARDED_BY(mutex_);
};

}  // namespace Broker
