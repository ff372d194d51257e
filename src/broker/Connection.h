#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>

#include "platform/Clock.h"
#include "threads/Mutex.h"

namespace Broker {

// What the broker remembers about one TLS connection, from before its handshake until its TLS
// object goes. Found through the TLS object (ConnectionTable::Of).
// Threads: any; the thread that serves the connection writes, others look.
struct Connection {
  enum class Stage {
    kSilent,     // accepted; nothing has come yet
    kHandshake,  // incoming, the handshake has begun
    kStranger,   // incoming, without a certificate
    kPeer,       // incoming, with one
    kOutgoing,
  };

  Connection(SSL* object, std::uint64_t serial, Platform::Clock::SteadyTime now)
      : tls(object), number(serial), made(now), lastUse(now) {}

  SSL* const tls;
  const std::uint64_t number;  // never used twice in a process
  const Platform::Clock::SteadyTime made;
  std::atomic<Stage> stage{Stage::kSilent};
  std::atomic<Platform::Clock::SteadyTime> lastUse;  // a request in either direction

  // Bytes of application data, and those received when the latest request was taken from them.
  std::atomic<std::uint64_t> received{0};
  std::atomic<std::uint64_t> receivedAtRequest{0};
  std::atomic<std::uint64_t> sent{0};
  std::atomic<std::uint64_t> requests{0};

  // Held for each use of the TLS object once its handshake is over, and never for long. Leaf lock.
  ThreadHelper::Mutex tlsMutex;

  std::atomic<bool> shut{false};  // its socket is shut; the ORB has not cleaned up yet

  // Under the table's lock: the other end, once it has been looked up. 0 stands for all whose
  // address is not IPv4.
  bool addressKnown = false;
  std::uint32_t address = 0;
};

}  // namespace Broker
