#pragma once

#include <cstdint>

#include "delivery/Workers.h"

namespace MessageRouter {

// Empties an entry's queue towards its peer, or tells a peer that fetches for itself that something
// waits.
class SenderWorker : public WorkerBase {
 public:
  explicit SenderWorker(WorkerManagerBase& manager);
  ~SenderWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;

 private:
  bool monitor_;
  std::uint32_t maxFailures_;
};

using SenderWorkerFactory = WorkerFactory<SenderWorker>;

}  // namespace MessageRouter
