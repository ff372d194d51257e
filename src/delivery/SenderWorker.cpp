#include "delivery/SenderWorker.h"

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "delivery/SendEntryGuard.h"
#include "delivery/SendFailureRecord.h"
#include "delivery/VisitFailure.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {

namespace {

constexpr char kWorkerName[] = "SenderWorker";
// The client that manages the tree of routers.
constexpr char kManagementClient[] = "EM";

// How a push to a router differs from a push to a client.
template <class Consumer>
struct PeerKind;

template <>
struct PeerKind<BrelixMessaging::_objref_RouterConsumer> {
  static constexpr char kName[] = "router";
  static constexpr bool kQualifyOriginator = true;
};

template <>
struct PeerKind<BrelixMessaging::_objref_EnvelopeConsumer> {
  static constexpr char kName[] = "client";
  static constexpr bool kQualifyOriginator = false;
};

}  // namespace

SenderWorker::SenderWorker(WorkerManagerBase& manager)
    : WorkerBase(manager),
      monitor_(GetConfigBool("MonitorEmSender", false)),
      maxFailures_(GetConfigInt("MonitorEmSenderMaxFailures", 5000)) {
  SendFailureRecord::Instance().LogSettings(monitor_, maxFailures_);
}

SenderWorker::~SenderWorker() {
  Stop();
}

void SenderWorker::ProcessEntry(RouterTableEntry& entry) {
  SendEntryGuard guard(entry, Manager());
  try {
    guard.Claim();
    if (!entry.IsLoggedOn() || Serve(entry, guard)) guard.Succeeded();
  } catch (...) {
    LogVisitFailure(kWorkerName);
  }
}

bool SenderWorker::Serve(RouterTableEntry& entry, SendEntryGuard& guard) {
  const RouterTableEntry::PeerReferences peer = entry.References();
  // The references of a new session are not this claim's: a sender of that session may be at work.
  if (!guard.SameSession()) return true;

  const std::string name = entry.Name();
  const bool toRouter = !CORBA::is_nil(peer.routerConsumer);
  const bool toClient = !CORBA::is_nil(peer.messageConsumer);
  if (monitor_ && !guard.Acquired() &&
      ((entry.IsParent() && toRouter) || (name == kManagementClient && toClient)) &&
      !SendFailureRecord::Instance().CountFailure(maxFailures_)) {
    return false;
  }

  if (toRouter && guard.Acquired()) {
    SendQueue(Visit{entry, guard, name, monitor_ && entry.IsParent()}, peer.routerConsumer.in());
  } else if (toClient && guard.Acquired()) {
    SendQueue(Visit{entry, guard, name, monitor_ && name == kManagementClient},
              peer.messageConsumer.in());
  } else if (!CORBA::is_nil(peer.notifyConsumer)) {
    NotifyPeer(entry, guard.Session(), peer.notifyConsumer.in(), name);
  }
  return true;
}

template <class Consumer>
void SenderWorker::SendQueue(const Visit& visit, Consumer* consumer) {
  const std::uint32_t maximum = GetConfigInt("MaximumToSend", 0xFFFFFFFFu);
  std::uint32_t count = 0;
  // A session that ended while this worker hung in it is not this worker's any more, even if the
  // peer is logged on again.
  while (!IsTerminated() && visit.entry.IsLoggedOn() && visit.guard.SameSession() &&
         count < maximum) {
    EnvelopeQueue::Taken taken;
    if (!visit.entry.PopNext(taken, visit.guard.Session())) return;
    Envelope& envelope = taken.Get();
    if (envelope.IsExpired()) {
      Quietly([&] { ReportDeliveryFailure(envelope, "Timeout"); });
    } else {
      if (!Send(visit, consumer, taken)) return;
      ++count;
    }
    // Only now, after the delivery, does the file go away.
    envelope.Retire();
  }
}

template <class Consumer>
bool SenderWorker::Send(const Visit& visit, Consumer* consumer, EnvelopeQueue::Taken& taken) {
  using Kind = PeerKind<Consumer>;
  Envelope& envelope = taken.Get();
  try {
    if (!envelope.Options().empty()) {
      LogTrace("Outgoing %s message delivery options: %s\n", Kind::kName,
               Shown(envelope.Options()).c_str());
    }
    const BrelixMessaging::Envelope_var wire = envelope.ToWire(Kind::kQualifyOriginator);
    if (LogEnabled(kLogTrace)) {
      LogTrace("Sending message (%s) to %s\n", envelope.DescribeShort().c_str(),
               Shown(visit.name).c_str());
    }
    Broker::RepeatOnce([&] { consumer->SendEnvelope(wire.in()); });
    if (visit.monitored && !SendFailureRecord::Instance().Clear()) return false;
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException(kWorkerName, exception, ""); });
    // A broken envelope is dropped like a delivered one, or it would stand in the way for ever.
    if (IsDiscardableError(exception, envelope)) return true;
    Quietly([&] {
      LogError("Failed to send message (%s) because of exception, adding message back to queue\n",
               envelope.DescribeShort().c_str());
    });
    PutBack(visit, taken);
    throw;
  } catch (...) {
    Quietly([&] {
      LogError(
          "Failed to send message (%s) because of unknown exception, adding message back to "
          "queue\n",
          envelope.DescribeShort().c_str());
    });
    PutBack(visit, taken);
    throw;
  }
  // Here, where its failure is not one of the delivery.
  Quietly([&] {
    if (!LogEnabled(kLogInfo)) return;
    LogInfo("Sent message (%s) to %s\n", envelope.DescribeShort().c_str(),
            Shown(visit.name).c_str());
  });
  return true;
}

void SenderWorker::PutBack(const Visit& visit, EnvelopeQueue::Taken& taken) {
  if (visit.entry.Requeue(taken, visit.name)) return;
  // The entry has been unregistered or renamed: the route is decided anew. Where no cycle runs any
  // more, the envelope stays on disk for the next one.
  if (Routing* routing = Cycle::Current()) routing->QueueForRouting(std::move(taken.Get()));
}

void SenderWorker::NotifyPeer(RouterTableEntry& entry, LogonGeneration session,
                              BrelixMessaging::NotifyConsumer_ptr notify, const std::string& name) {
  // Nothing may fail between the claim and the report of the outcome.
  const auto log = [&name](const char* what) {
    if (!LogEnabled(kLogDebug)) return;
    Quietly([&] { LogDebug("%s %s\n", what, Shown(name).c_str()); });
  };
  // Wanted anew each time, so that a second one runs in the same state as the first, and its
  // failure counts.
  for (bool again = true; again;) {
    const RouterTableEntry::Claim claim = entry.NotificationWanted(session);
    if (!claim.acquired) return;
    try {
      log("Notifying");
      Broker::RepeatOnce([notify] { notify->Notify(); });
    } catch (const CORBA::Exception&) {
      log("Failed to notify");
      entry.NotificationFailed(session);
      return;
    } catch (...) {
      // The visit fails as a whole; whatever comes of it, the entry is not left in this state.
      entry.NotificationFailed(session);
      throw;
    }
    log("Successfully notified");
    again = entry.NotificationFinished(session);
  }
}

}  // namespace MessageRouter
