#include "delivery/SendEntryGuard.h"

#include "delivery/EndOfVisit.h"

namespace MessageRouter {

SendEntryGuard::SendEntryGuard(RouterTableEntry& entry, WorkerManagerBase& manager)
    : entry_(entry), manager_(manager) {}

void SendEntryGuard::Claim() {
  claim_ = entry_.ClaimForSending();
}

SendEntryGuard::~SendEntryGuard() {
  EndVisit("SenderWorker", "SendEntryGuard", [this] {
    if (failed_) {
      Fail();
    } else if (claim_.acquired) {
      entry_.SendFinished(claim_.generation);
    }
  });
}

void SendEntryGuard::Fail() {
  if (!entry_.SendFailed(claim_)) {
    // What this visit put back may have missed the senders of the new session.
    manager_.Add(entry_);
    return;
  }
  LogFailedVisit("send messages", entry_);
  entry_.LogoffSession(claim_.generation);
}

}  // namespace MessageRouter
