#include "delivery/NotificationThresholdWorker.h"

#include "broker/CorbaExceptions.h"
#include "delivery/EndOfVisit.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {
namespace {

// A call that ends without an answer, on whatever way, is a failed one.
class ThresholdCall {
 public:
  explicit ThresholdCall(RouterTableEntry& entry)
      : entry_(entry), claim_(entry.NotificationRetryDue()), open_(claim_.acquired) {}
  ~ThresholdCall() {
    if (!open_) return;
    EndVisit("NotificationThresholdWorker", "ThresholdCall",
             [this] { entry_.ThresholdCallFailed(claim_.generation); });
  }
  ThresholdCall(const ThresholdCall&) = delete;
  ThresholdCall& operator=(const ThresholdCall&) = delete;

  bool Acquired() const { return claim_.acquired; }
  // Whether the session in which the claim was made still stands.
  bool SameSession() const { return entry_.Generation() == claim_.generation; }
  void Answered(std::int32_t threshold) {
    open_ = false;
    entry_.NotificationAccepted(claim_.generation, threshold);
  }

 private:
  RouterTableEntry& entry_;
  const RouterTableEntry::Claim claim_;
  bool open_;
};

}  // namespace

NotificationThresholdWorker::~NotificationThresholdWorker() {
  Stop();
}

void NotificationThresholdWorker::ProcessEntry(RouterTableEntry& entry) {
  const auto log = [&entry](const char* outcome) {
    if (!LogEnabled(kLogDebug)) return;
    Quietly([&] {
      LogDebug("%s NotificationThreshold call to %s\n", outcome, Shown(entry.Name()).c_str());
    });
  };
  // From the claim on nothing but the call may fail: the peer would pay for it with its
  // notifications.
  ThresholdCall call(entry);
  if (!call.Acquired()) return;
  const RouterTableEntry::PeerReferences peer = entry.References();
  BrelixMessaging::NotifyConsumer_ptr notify = peer.notifyConsumer.in();
  // The reference of a new session is not this claim's.
  if (CORBA::is_nil(notify) || !call.SameSession()) return;
  CORBA::Long threshold = 0;
  try {
    threshold = Broker::RepeatOnce([notify] { return notify->NotificationThreshold(); });
  } catch (const CORBA::Exception&) {
    log("Failed");
    return;
  }
  log("Successful");
  call.Answered(threshold);
  if (Routing* routing = Cycle::Current()) routing->Host().OfferToSenders(entry);
}

}  // namespace MessageRouter
