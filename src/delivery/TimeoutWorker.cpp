#include "delivery/TimeoutWorker.h"

#include "delivery/VisitFailure.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"

namespace MessageRouter {

TimeoutWorker::~TimeoutWorker() {
  Stop();
}

void TimeoutWorker::ProcessEntry(RouterTableEntry& entry) {
  try {
    // Read first: a peer that logs on again meanwhile must not be logged off for its past.
    const LogonGeneration session = entry.Generation();
    if (!entry.IsLoggedOn() || !entry.IsPassiveConsumer()) {
      entry.RetireExpired([this] { return !IsTerminated(); });
    }
    if (entry.PullTimedOut(session)) {
      Quietly([&entry] {
        LogInfo("Communications timeout, logging %s off\n", Shown(entry.Name()).c_str());
      });
      entry.LogoffSession(session);
    }
  } catch (...) {
    LogVisitFailure("TimeoutWorker");
  }
}

}  // namespace MessageRouter
