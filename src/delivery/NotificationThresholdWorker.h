#pragma once

#include "delivery/Workers.h"

namespace MessageRouter {

// Asks a peer from which priority on it wants to be notified. Not available in this version: a
// visit leaves the entry as it is, and the first one in the process says so.
class NotificationThresholdWorker : public WorkerBase {
 public:
  explicit NotificationThresholdWorker(WorkerManagerBase& manager) : WorkerBase(manager) {}
  ~NotificationThresholdWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;
};

}  // namespace MessageRouter
