#include "delivery/GetEntryGuard.h"

#include "delivery/EndOfVisit.h"

namespace MessageRouter {

GetEntryGuard::GetEntryGuard(RouterTableEntry& entry, const PollObserver& observer)
    : entry_(entry), observer_(observer) {}

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
  if (observer_) observer_(claim_.notified, got_);
}

void GetEntryGuard::Fail() {
  // Where there was no claim, the poll under way is another visit's.
  if (!claim_.acquired || !entry_.failedGet(claim_.generation)) return;
  LogFailedVisit("get messages", entry_);
  entry_.LogoffSession(claim_.generation);
}

}  // namespace MessageRouter
