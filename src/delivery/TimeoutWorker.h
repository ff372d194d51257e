#pragma once

#include "delivery/Workers.h"

namespace MessageRouter {

// Retires what has expired in the queue of a peer that nobody pushes to, and logs a router off that
// stopped pulling. It calls no peer.
class TimeoutWorker : public WorkerBase {
 public:
  explicit TimeoutWorker(WorkerManagerBase& manager) : WorkerBase(manager) {}
  ~TimeoutWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;
};

using TimeoutWorkerFactory = WorkerFactory<TimeoutWorker>;

}  // namespace MessageRouter
