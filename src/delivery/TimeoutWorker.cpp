#include "delivery/TimeoutWorker.h"

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"

namespace MessageRouter {

TimeoutWorker::~TimeoutWorker() {
  Stop();
}

void TimeoutWorker::ProcessEntry(RouterTableEntry& entry) {
  try {
    // Read first: a peer that logs on again meanwhile must not be logged off for its past.
    const LogonGeneration session = entry.Generation();
    if (!entry.IsLoggedOn() || !entry.IsPassiveConsumer()) entry.RetireExpired();
    if (entry.PullTimedOut(session)) {
      LogInfo("Communications timeout, logging %s off\n", entry.Name().c_str());
      entry.LogoffSession(session);
    }
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("TimeoutWorker", exception, "");
  } catch (const std::exception& exception) {
    LogCaughtException("TimeoutWorker", exception, "");
  }
}

}  // namespace MessageRouter
