#pragma once

#include <cstdint>
#include <string>

#include "delivery/Workers.h"

namespace MessageRouter {

class SendEntryGuard;

// Empties an entry's queue towards its peer, or tells a peer that fetches for itself that something
// waits.
class SenderWorker : public WorkerBase {
 public:
  explicit SenderWorker(WorkerManagerBase& manager);
  ~SenderWorker() override;
  void ProcessEntry(RouterTableEntry& entry) override;

 private:
  // What one visit needs to know again and again.
  struct Visit {
    RouterTableEntry& entry;
    const SendEntryGuard& guard;
    const std::string name;
    bool monitored;  // a delivery clears the failure record
  };

  // Steps between the claim and its end. False if the visit must count as failed.
  bool Serve(RouterTableEntry& entry, SendEntryGuard& guard);
  // Empties the queue towards one peer, up to MaximumToSend.
  template <class Consumer>
  void SendQueue(const Visit& visit, Consumer* consumer);
  // False if the loop must end, with the delivered envelope kept on disk.
  template <class Consumer>
  bool Send(const Visit& visit, Consumer* consumer, EnvelopeQueue::Taken& taken);
  void PutBack(const Visit& visit, EnvelopeQueue::Taken& taken);
  void NotifyPeer(RouterTableEntry& entry, LogonGeneration session,
                  BrelixMessaging::NotifyConsumer_ptr notify, const std::string& name);

  bool monitor_;
  std::uint32_t maxFailures_;
};

using SenderWorkerFactory = WorkerFactory<SenderWorker>;

}  // namespace MessageRouter
