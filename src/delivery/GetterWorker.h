#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "delivery/GetEntryGuard.h"
#include "delivery/Workers.h"

namespace MessageRouter {

// Pulls the envelopes of a passive supplier. An envelope is on this router's disk and in its route
// queue before the peer is told that it may forget it: if the way to the peer breaks in between,
// the peer supplies it once more.
class GetterWorker : public WorkerBase {
 public:
  GetterWorker(WorkerManagerBase& manager, PollObserver observer);
  ~GetterWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;

 private:
  // Until the peer has nothing more, which is told by BrelixMessaging::NoEnvelope, or the visit has
  // been long enough.
  void Poll(RouterTableEntry& entry, GetEntryGuard& guard);

  const PollObserver observer_;
  std::uint32_t maximumToGet_;  // envelopes of one visit
};

class GetterWorkerFactory : public WorkerFactoryBase {
 public:
  explicit GetterWorkerFactory(PollObserver observer) : observer_(std::move(observer)) {}
  std::unique_ptr<WorkerBase> Create(WorkerManagerBase& manager) override;

 private:
  const PollObserver observer_;
};

}  // namespace MessageRouter
