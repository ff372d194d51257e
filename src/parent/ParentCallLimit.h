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
  // `second`: how long a second takes.
  explicit ParentCallLimit(std::chrono::microseconds second) {
    const std::int32_t seconds = std::min(HeartbeatTimeout(), kLongest);
    if (seconds < 1) return;
    limit_.emplace(std::chrono::ceil<std::chrono::milliseconds>(seconds * second));
  }

 private:
  // Seconds. Longer than any call lasts, and within what the ORB can count in milliseconds.
  static constexpr std::int32_t kLongest = 1'000'000;

  std::optional<Broker::CallTimeout> limit_;
};

}  // namespace MessageRouter
