#pragma once

#include "delivery/Workers.h"

namespace MessageRouter {

// Pulls the envelopes of a passive supplier. Not available in this version: a visit leaves the
// entry as it is, and the first one in the process says so. The entry stays claimable, in
// supplierState 3 or 4, until it is logged off, and is not offered again before that.
class GetterWorker : public WorkerBase {
 public:
  explicit GetterWorker(WorkerManagerBase& manager) : WorkerBase(manager) {}
  ~GetterWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;
};

using GetterWorkerFactory = WorkerFactory<GetterWorker>;

}  // namespace MessageRouter
