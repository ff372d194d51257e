#include "core/SystemCheck.h"

#include <optional>

#include "logging/Log.h"
#include "platform/Clock.h"

namespace MessageRouter {
namespace {

// Outlive the short-lived objects; the first object's interval stays for the life of the process.
std::optional<Platform::Clock::SteadyTime> lastCheck;
std::chrono::seconds checkInterval{0};

}  // namespace

RouterSystemCheck::RouterSystemCheck(std::uint32_t percentageThreshold,
                                     std::uint32_t minimumPortNumToCount,
                                     std::uint32_t checkIntervalSecs,
                                     std::uint32_t reportIntervalSecs) {
  LogDebug(
      "RouterSystemCheck: percentageThreshold %u, minimumPortNumToCount %u, checkIntervalSecs %u, "
      "reportIntervalSecs %u\n",
      percentageThreshold, minimumPortNumToCount, checkIntervalSecs, reportIntervalSecs);
  if (checkInterval.count() == 0) checkInterval = std::chrono::seconds(checkIntervalSecs);
}

bool RouterSystemCheck::CheckNow() {
  const auto now = Platform::Clock::Instance().SteadyNow();
  if (!lastCheck) {
    lastCheck = now;
    return true;
  }
  if (now < *lastCheck + checkInterval) return false;
  lastCheck = now;
  LogDebug("RouterSystemCheck::CheckNow() - returning true\n");
  return true;
}

void RouterSystemCheck::Run() {
  LogDebug("RouterSystemCheck: counting the TCP ports in use is not available in this version\n");
}

}  // namespace MessageRouter
