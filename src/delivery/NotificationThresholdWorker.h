#pragma once

#include "delivery/Workers.h"

namespace MessageRouter {

// Asks a peer that can be notified from which priority on it wants to be, which also shows whether
// it can be reached. The senders then look whether something is worth a notification. A peer that
// can't be reached is asked again after the entry's back-off.
class NotificationThresholdWorker : public WorkerBase {
 public:
  explicit NotificationThresholdWorker(WorkerManagerBase& manager) : WorkerBase(manager) {}
  ~NotificationThresholdWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;
};

}  // namespace MessageRouter
