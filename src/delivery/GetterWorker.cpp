#include "delivery/GetterWorker.h"

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "delivery/VisitFailure.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Routing.h"

namespace MessageRouter {

namespace {

constexpr char kWorkerName[] = "GetterWorker";
constexpr std::uint32_t kUnlimited = 0xFFFFFFFFu;
constexpr std::uint32_t kLowMaximum = 10;

std::uint32_t ReadMaximumToGet() {
  const std::uint32_t maximum = GetConfigInt("MaximumToGet", kUnlimited);
  if (maximum == 0) {
    LogWarning("MaximumToGet is zero, using value of %d\n", static_cast<std::int32_t>(kUnlimited));
    return kUnlimited;
  }
  if (maximum < kLowMaximum) {
    LogWarning("MaximumToGet value is %d - this is low and may degrade performance\n",
               static_cast<std::int32_t>(maximum));
  }
  return maximum;
}

// One envelope: fetched, stored, queued, and only then acknowledged.
void Fetch(BrelixMessaging::RouterSupplier_ptr supplier, const RouterTableEntry& entry,
           const std::string& name, GetEntryGuard& guard) {
  if (LogEnabled(kLogDebug)) {
    LogDebug("GetterWorker::ProcessEntry() - polling %s\n", Shown(name).c_str());
  }
  const BrelixMessaging::Envelope_var wire =
      Broker::RepeatOnce([supplier] { return supplier->GetEnvelope(); });
  guard.GotSomething();

  Envelope envelope;
  envelope.CreateFromRouter(wire.in(), entry.IsParent());
  const std::string originator = envelope.Originator();
  const auto id = static_cast<BrelixMessaging::MessageId>(envelope.MessageId());
  const std::string description = LogEnabled(kLogDebug) ? envelope.DescribeShort() : std::string();
  LogDebug("GetterWorker::ProcessEntry() - got message (%s)\n", description.c_str());

  // Where no cycle runs any more, the envelope stays on disk for the next one.
  if (Routing* routing = Cycle::Current()) routing->QueueForRouting(std::move(envelope));

  Broker::RepeatOnce([&] { supplier->AcknowledgeEnvelope(originator.c_str(), id); });
  LogDebug("GetterWorker::ProcessEntry() - acknowledged message (%s)\n", description.c_str());
}

}  // namespace

GetterWorker::GetterWorker(WorkerManagerBase& manager, PollObserver observer)
    : WorkerBase(manager), observer_(std::move(observer)), maximumToGet_(ReadMaximumToGet()) {}

GetterWorker::~GetterWorker() {
  Stop();
}

void GetterWorker::ProcessEntry(RouterTableEntry& entry) {
  GetEntryGuard guard(entry, observer_);
  try {
    guard.Claim();
    Poll(entry, guard);
    guard.Succeeded();
  } catch (const BrelixMessaging::NoEnvelope&) {
    guard.Succeeded();
  } catch (...) {
    LogVisitFailure(kWorkerName);
  }
}

void GetterWorker::Poll(RouterTableEntry& entry, GetEntryGuard& guard) {
  if (!guard.Acquired()) return;
  const RouterTableEntry::PeerReferences peer = entry.References();
  // The references of a new session are not this claim's.
  if (!guard.SameSession()) return;
  if (CORBA::is_nil(peer.routerSupplier)) return;
  const std::string name = entry.Name();
  // A stop waits for this visit, and must not wait for all that a peer may have. A first turn there
  // is: what counts as a poll has asked the peer.
  for (std::uint32_t count = 0; (count == 0 || !IsTerminated()) && entry.IsLoggedOn() &&
                                guard.SameSession() && count < maximumToGet_;
       ++count) {
    Fetch(peer.routerSupplier.in(), entry, name, guard);
  }
}

std::unique_ptr<WorkerBase> GetterWorkerFactory::Create(WorkerManagerBase& manager) {
  return std::make_unique<GetterWorker>(manager, observer_);
}

}  // namespace MessageRouter
