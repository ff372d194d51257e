#include "delivery/NotificationThresholdWorker.h"

#include <atomic>

#include "logging/Log.h"

namespace MessageRouter {

NotificationThresholdWorker::~NotificationThresholdWorker() {
  Stop();
}

void NotificationThresholdWorker::ProcessEntry(RouterTableEntry& entry) {
  static std::atomic<bool> said{false};
  if (said.exchange(true)) return;
  LogWarning(
      "Notification threshold calls are not available in this version: %s and other peers are not "
      "asked\n",
      entry.Name().c_str());
}

}  // namespace MessageRouter
