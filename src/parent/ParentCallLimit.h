#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

#include "broker/CallTimeout.h"
#include "config/Configuration.h"

namespace MessageRouter {

// Seconds. Below 1: no limit.
inline std::int32_t HeartbeatTimeout() {
  return static_cast<std::int32_t>(GetConfigInt("HeartbeatTimeout", 1800));
}

// While it lives, the calls of this thread end by the limit of a heartbeat, all together: a parent
// that is there and doesn't answer would hold the thread, and with it the escalation, for ever.
class ParentCallLimit {
 public:
  // Seconds. The parent calls back at most twice before it answers a logon, for a minute at most
  // each (kCallBackLimit), and its connections take their time. Above the default of ResetTimeout
  // and not bounded by it: a child that its parent can't call back would never be logged on.
  static constexpr std::int32_t kLogon = 150;

  // `second`: how long a second takes. `least`: the seconds that a limit, where there is one,
  // leaves in any case.
  static ParentCallLimit AtLeast(std::int32_t least, std::chrono::microseconds second) {
    return ParentCallLimit(OfHeartbeat(least, second));
  }
  // `most`: what it is where that of a heartbeat is longer, or none.
  static ParentCallLimit AtMost(std::chrono::milliseconds most, std::chrono::microseconds second) {
    return ParentCallLimit(std::min(OfHeartbeat(0, second).value_or(most), most));
  }

 private:
  using Limit = std::optional<std::chrono::milliseconds>;

  // Seconds. Longer than any call lasts, and within what the ORB can count in milliseconds.
  static constexpr std::int32_t kLongest = 1'000'000;

  explicit ParentCallLimit(Limit limit) {
    if (limit) limit_.emplace(*limit);
  }
  static Limit OfHeartbeat(std::int32_t least, std::chrono::microseconds second) {
    const std::int32_t timeout = HeartbeatTimeout();
    if (timeout < 1) return std::nullopt;
    const std::int32_t seconds = std::clamp(timeout, least, kLongest);
    return std::chrono::ceil<std::chrono::milliseconds>(seconds * second);
  }

  std::optional<Broker::CallTimeout> limit_;
};

}  // namespace MessageRouter
