#pragma once

#include <chrono>
#include <cstdint>

namespace MessageRouter {

// The periodic look at the host. Counting the TCP ports in use is not available in this version.
// Threads: the main thread alone.
class RouterSystemCheck {
 public:
  RouterSystemCheck(std::uint32_t percentageThreshold, std::uint32_t minimumPortNumToCount,
                    std::uint32_t checkIntervalSecs, std::uint32_t reportIntervalSecs);

  // Whether a check is due; the first call of a process always says yes.
  static bool CheckNow();
  void Run();
};

}  // namespace MessageRouter
