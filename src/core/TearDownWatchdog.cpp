#include "core/TearDownWatchdog.h"

#include <chrono>

#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Process.h"

namespace MessageRouter {

void TearDownWatchdog::Process() {
  using Clock = Platform::Clock;
  const Clock::SteadyTime end = Clock::Instance().SteadyNow() + std::chrono::seconds(seconds_);
  while (seconds_ == 0 || Clock::Instance().SteadyNow() < end) {
    if (IsTerminated()) return;
    Wait(1, 0);
  }
  if (IsTerminated()) return;
  LogWarning(
      "Resetting router failed to finish after %u seconds. Forcing router shutdown. Router should "
      "restart automatically.\n",
      seconds_);
  Platform::ExitProcess(0);
}

}  // namespace MessageRouter
