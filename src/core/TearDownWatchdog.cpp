#include "core/TearDownWatchdog.h"

#include "logging/Log.h"
#include "platform/Process.h"

namespace MessageRouter {

void TearDownWatchdog::Process() {
  if (Wait(seconds_, 0) || IsTerminated()) return;
  LogWarning(
      "Resetting router failed to finish after %u seconds. Forcing router shutdown. Router should "
      "restart automatically.\n",
      seconds_);
  Platform::ExitProcess(0);
}

}  // namespace MessageRouter
