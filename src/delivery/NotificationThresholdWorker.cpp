#include "delivery/NotificationThresholdWorker.h"

#include <exception>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"
#include "routing/Routing.h"

namespace MessageRouter {

NotificationThresholdWorker::~NotificationThresholdWorker() {
  Stop();
}

void NotificationThresholdWorker::ProcessEntry(RouterTableEntry& entry) {
  const RouterTableEntry::Claim claim = entry.NotificationRetryDue();
  if (!claim.acquired) return;
  const RouterTableEntry::PeerReferences peer = entry.References();
  BrelixMessaging::NotifyConsumer_ptr notify = peer.notifyConsumer.in();
  // The reference of a new session is not this claim's.
  if (CORBA::is_nil(notify) || entry.Generation() != claim.generation) return;
  const std::string name = entry.Name();
  CORBA::Long threshold = 0;
  try {
    threshold = Broker::RepeatOnce([notify] { return notify->NotificationThreshold(); });
  } catch (const CORBA::Exception&) {
    LogDebug("Failed NotificationThreshold call to %s\n", name.c_str());
    entry.ThresholdCallFailed(claim.generation);
    return;
  } catch (const std::exception& exception) {
    LogCaughtException("NotificationThresholdWorker", exception, "");
    entry.ThresholdCallFailed(claim.generation);
    return;
  }
  LogDebug("Successful NotificationThreshold call to %s\n", name.c_str());
  entry.NotificationAccepted(claim.generation, threshold);
  if (Routing* routing = Cycle::Current()) routing->Host().OfferToSenders(entry);
}

}  // namespace MessageRouter
