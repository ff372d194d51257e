#include "delivery/GetEntryGuard.h"

#include "delivery/EndOfVisit.h"

namespace MessageRouter {

// The claim takes the mark of a notified poll away, so it is read before.
GetEntryGuard::GetEntryGuard(RouterTableEntry& entry, const PollObserver& observer)
    : entry_(entry),
      notified_(entry.GetSupplierState() == RouterTableEntry::kPollNotified),
      observer_(observer) {}

void GetEntryGuard::Claim() {
  claim_ = entry_.ClaimForPolling();
}

GetEntryGuard::~GetEntryGuard() {
  EndVisit("GetterWorker", "GetEntryGuard", [this] {
    if (failed_) {
      Fail();
    } else {
      Finish();
    }
  });
}

void GetEntryGuard::Finish() {
  if (claim_.acquired) entry_.successfulGet(claim_.generation);
  if (observer_) observer_(notified_, got_);
}

void GetEntryGuard::Fail() {
  if (!entry_.failedGet(claim_.generation)) return;
  LogError("Failed to get messages, logging %s off\n", entry_.Name().c_str());
  entry_.LogoffSession(claim_.generation);
}

}  // namespace MessageRouter
