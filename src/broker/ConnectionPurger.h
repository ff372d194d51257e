#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "broker/Connection.h"
#include "platform/Clock.h"
#include "threads/ThreadHelper.h"

namespace Broker {

// The thread that looks after the connections of an ORB, in both directions:
// - above the limit the least recently used idle ones are closed, in an orderly way, so that a
//   caller just opens a new one;
// - one that stays in the middle of a message, or does not take its reply, is shut;
// - handshakes and strangers have their deadlines (ConnectionTable).
// Lives between the making and the destruction of one ORB.
class ConnectionPurger : public ThreadHelper::StoppableThreadHelper {
 public:
  // `limit` 0: none.
  explicit ConnectionPurger(unsigned limit);
  ~ConnectionPurger() override;

  void Process() override;

  // One look at all connections.
  void Scan();

  // Marks the idle outgoing connections for closing; the ORB closes them at its own next scan.
  // Returns how many outgoing connections there are.
  static std::size_t ExpireOutgoing();

 private:
  struct Strand;
  // A connection that was found in the middle of something.
  struct Watch {
    bool sending = false;
    std::uint64_t number = 0;    // of the connection, since addresses are used again
    std::uint64_t requests = 0;  // taken from it when the watch began
    std::uint64_t before = 0;    // bytes in that direction when the watch began
    std::uint64_t progress = 0;  // and at the latest progress
    Platform::Clock::SteadyTime since;
    Platform::Clock::SteadyTime progressAt;
    bool holdsPoolThread = false;
    bool seen = false;
  };

  void ScanMessages(const std::vector<Strand>& strands);
  void Purge(std::vector<Strand>& strands) const;
  Watch& WatchOf(const Strand& strand);

  const unsigned limit_;
  std::unordered_map<const void*, Watch> watched_;  // by strand; the scanning thread's
};

}  // namespace Broker
