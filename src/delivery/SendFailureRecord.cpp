#include "delivery/SendFailureRecord.h"

#include "config/Configuration.h"
#include "logging/Log.h"
#include "platform/Process.h"

namespace MessageRouter {

SendFailureRecord& SendFailureRecord::Instance() {
  // Never destroyed: a worker may still count while the process ends.
  static SendFailureRecord* const record = new SendFailureRecord;
  return *record;
}

void SendFailureRecord::LogSettings(bool monitoring, std::uint32_t limit) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard || settingsLogged_) return;
  LogDebug(
      "Router will %srestart when it detects an EM or parent sender thread has failed to send %u "
      "messages.",
      monitoring ? "" : "not ", limit);
  settingsLogged_ = true;
}

bool SendFailureRecord::CountFailure(std::uint32_t limit) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return false;
  ++failures_;
  if (failures_ == limit) {
    LogError(
        "Failed to send a message to EM or parent %u consecutive times. The router will now "
        "restart.",
        failures_);
    if (GetConfigBool("EnableDebugBreakpoints", false)) Platform::DebugBreak();
    Platform::ExitProcess(0);
  }
  if (failures_ % 1000 == 0) {
    LogDebug(
        "Failed to send a message to EM or parent %u consecutive times. The router will restart if "
        "this problem does not resolve itself.",
        failures_);
  }
  return true;
}

bool SendFailureRecord::Clear() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return false;
  failures_ = 0;
  return true;
}

std::uint32_t SendFailureRecord::Failures() const {
  ThreadHelper::Guard guard(mutex_);
  return guard ? failures_ : 0;
}

}  // namespace MessageRouter
