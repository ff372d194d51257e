// Sessions of an entry: how they begin and end. Everything that calls the host stands outside of
// the entry's lock: before it what a logon will need, after it what a reset took out.
#include <stdexcept>
#include <utility>

#include "logging/Log.h"
#include "routing/RouterTable.h"
#include "routing/RouterTableEntry.h"

namespace MessageRouter {

using ThreadHelper::WriteGuard;

namespace {

template <class Var>
void Move(Var& from, Var& to) {
  to = from._retn();
}

void DeactivateQuietly(RoutingHost& host, CORBA::Object_ptr object) {
  if (CORBA::is_nil(object)) return;
  try {
    host.Objects().Deactivate(object);
  } catch (...) {
    // The adapter is gone, and the object with it.
  }
}

void DeactivateQuietly(RoutingHost& host, const RouterTableEntry::LocalPeerObjects& objects) {
  DeactivateQuietly(host, objects.consumer);
  DeactivateQuietly(host, objects.notify);
  DeactivateQuietly(host, objects.supplier);
}

}  // namespace

class RouterTableEntry::PendingObjects {
 public:
  explicit PendingObjects(RoutingHost& host) : host_(host) {}
  ~PendingObjects() { DeactivateQuietly(host_, objects); }
  PendingObjects(const PendingObjects&) = delete;
  PendingObjects& operator=(const PendingObjects&) = delete;

  void MoveTo(LocalPeerObjects& owner) {
    Move(objects.consumer, owner.consumer);
    Move(objects.notify, owner.notify);
    Move(objects.supplier, owner.supplier);
  }

  LocalPeerObjects objects;

 private:
  RoutingHost& host_;
};

void RouterTableEntry::ResetLocked(Dismissed& dismissed) {
  ++generation_;
  Move(references_.routerConsumer, dismissed.references.routerConsumer);
  Move(references_.messageConsumer, dismissed.references.messageConsumer);
  Move(references_.notifyConsumer, dismissed.references.notifyConsumer);
  Move(references_.routerSupplier, dismissed.references.routerSupplier);
  hasNotifyConsumer_ = false;
  Move(local_.consumer, dismissed.objects.consumer);
  Move(local_.notify, dismissed.objects.notify);
  Move(local_.supplier, dismissed.objects.supplier);
  logonState_ = kLoggedOff;
  supplierState_ = kNoSupplier;
  consumerState_ = kNothingSent;
  dismissed.parentLinkLost = isParent_;
}

void RouterTableEntry::Finish(Dismissed& dismissed) {
  DeactivateQuietly(host_, dismissed.objects);
  if (dismissed.parentLinkLost) host_.ParentLinkLost();
}

RouterTableEntry::LocalPeerObjects RouterTableEntry::LogonClient(
    const std::string& name, BrelixMessaging::EnvelopeConsumer_ptr consumer,
    BrelixMessaging::NotifyConsumer_ptr notify, std::int32_t threshold, bool loggingOn) {
  PeerReferences references;
  references.messageConsumer = BrelixMessaging::EnvelopeConsumer::_duplicate(consumer);
  references.notifyConsumer = BrelixMessaging::NotifyConsumer::_duplicate(notify);
  return LogonPeer(name, false, references, threshold, loggingOn);
}

RouterTableEntry::LocalPeerObjects RouterTableEntry::LogonRouter(
    const std::string& name, BrelixMessaging::RouterConsumer_ptr consumer,
    BrelixMessaging::RouterSupplier_ptr supplier, BrelixMessaging::NotifyConsumer_ptr notify,
    std::int32_t threshold, bool loggingOn) {
  PeerReferences references;
  references.routerConsumer = BrelixMessaging::RouterConsumer::_duplicate(consumer);
  references.routerSupplier = BrelixMessaging::RouterSupplier::_duplicate(supplier);
  references.notifyConsumer = BrelixMessaging::NotifyConsumer::_duplicate(notify);
  return LogonPeer(name, true, references, threshold, loggingOn);
}

// Two logons at once both activate; the lock orders them, the last one wins, and its reset
// deactivates the objects of the other. A peer that is unregistered meanwhile, and may have lost
// its entry to another, is found out under the lock, and its objects go.
RouterTableEntry::LocalPeerObjects RouterTableEntry::LogonPeer(const std::string& name,
                                                               bool isRouter,
                                                               PeerReferences& references,
                                                               std::int32_t threshold,
                                                               bool loggingOn) {
  if (!registered_) throw BrelixMessaging::NotRegistered();
  const LogonGeneration before = generation_;
  PendingObjects pending(host_);
  if (loggingOn) {
    try {
      ActivateObjects(isRouter, references, pending.objects);
    } catch (...) {
      AbandonLogon(name, before);
      throw;
    }
  }
  const Thresholds thresholds = host_.GetThresholds();
  LocalPeerObjects activated;
  Dismissed dismissed;
  std::string shownName;
  std::string description;
  std::uint32_t pollInterval = 0;
  bool polled = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return activated;
    if (!registered_ || !BelongsToLocked(name)) throw BrelixMessaging::NotRegistered();
    ResetLocked(dismissed);
    isRouter_ = isRouter;
    Move(references.routerConsumer, references_.routerConsumer);
    Move(references.messageConsumer, references_.messageConsumer);
    Move(references.notifyConsumer, references_.notifyConsumer);
    Move(references.routerSupplier, references_.routerSupplier);
    pending.MoveTo(local_);
    activated = local_;
    description = ApplyReferencesLocked(threshold, thresholds);
    logonState_ = kLoggedOn;
    if (isRouter) TouchLastPullLocked();
    shownName = name_;
    polled = supplierState_ == kPollWaiting;
    pollInterval = pollInterval_;
  }
  Finish(dismissed);
  if (polled) {
    LogDebug(
        "RouterTableEntry::unsafe_enablePolling(): set polling interval to %u seconds for %s\n",
        pollInterval, shownName.c_str());
  }
  if (isRouter) {
    LogInfo("RouterTableEntry state (%srouter, %s): %s is %s\n", "",
            loggingOn ? "logging on" : "restoring", shownName.c_str(), description.c_str());
  }
  return activated;
}

void RouterTableEntry::ActivateObjects(bool isRouter, const PeerReferences& references,
                                       LocalPeerObjects& objects) {
  LocalObjects& factory = host_.Objects();
  if (CORBA::is_nil(references.routerConsumer) && CORBA::is_nil(references.messageConsumer)) {
    if (isRouter) {
      objects.supplier = factory.CreateRouterSupplier();
    } else {
      objects.supplier = factory.CreateClientSupplier();
    }
  }
  if (!CORBA::is_nil(references.routerSupplier)) {
    objects.notify = factory.CreateNotifyConsumer();
  } else if (isRouter) {
    objects.consumer = factory.CreateRouterConsumer();
  } else {
    objects.consumer = factory.CreateClientConsumer();
  }
}

void RouterTableEntry::AbandonLogon(const std::string& name, LogonGeneration before) {
  Dismissed dismissed;
  {
    WriteGuard guard(lock_);
    if (!guard || generation_ != before || !BelongsToLocked(name)) return;
    ResetLocked(dismissed);
  }
  Finish(dismissed);
}

std::string RouterTableEntry::ApplyReferencesLocked(std::int32_t threshold,
                                                    const Thresholds& thresholds) {
  std::string description;
  hasNotifyConsumer_ = !CORBA::is_nil(references_.notifyConsumer);
  if (!CORBA::is_nil(references_.routerConsumer) || !CORBA::is_nil(references_.messageConsumer)) {
    consumerState_ = kPushIdle;
    description = "passive consumer, ";
  } else if (hasNotifyConsumer_) {
    notificationThreshold_ = threshold;
    consumerState_ = kNothingSent;
    nextNotification_.reset();
    notificationRetry_ = 0;
    description = "active consumer (will try to notify), ";
  } else {
    consumerState_ = kNoNotification;
    description = "active consumer (no notification), ";
  }
  if (!CORBA::is_nil(references_.routerSupplier)) {
    unsafe_enablePolling(thresholds);
    return description + "passive supplier";
  }
  supplierState_ = kActiveSupplier;
  return description + "active supplier";
}

RouterTableEntry::LocalPeerObjects RouterTableEntry::LogonCertification(const std::string& name) {
  if (logonState_ == kLoggedOn) throw BrelixMessaging::AlreadyLoggedOn();
  const LogonGeneration before = generation_;
  PendingObjects pending(host_);
  try {
    LocalObjects& factory = host_.Objects();
    pending.objects.supplier = factory.CreateCertSupplier(name);
    pending.objects.consumer = factory.CreateCertConsumer(name);
  } catch (...) {
    AbandonLogon(name, before);
    throw;
  }
  LocalPeerObjects activated;
  Dismissed dismissed;
  {
    WriteGuard guard(lock_);
    if (!guard) return activated;
    if (logonState_ == kLoggedOn) throw BrelixMessaging::AlreadyLoggedOn();
    // Somebody else took the entry over since the caller found it.
    if (detached_ || name != name_) throw BrelixMessaging::Rejected();
    ResetLocked(dismissed);
    pending.MoveTo(local_);
    activated = local_;
    consumerState_ = kNoNotification;
    supplierState_ = kActiveSupplier;
    logonState_ = kCertification;
    TouchLastPullLocked();
  }
  Finish(dismissed);
  return activated;
}

void RouterTableEntry::LogoffLocked(Dismissed& dismissed, LogoffNotice& notice) {
  if (!registered_) throw BrelixMessaging::NotRegistered();
  const std::uint32_t state = logonState_;
  if (state != kLoggedOn && state != kCertification) throw BrelixMessaging::NotLoggedOn();
  notice.due = state == kLoggedOn && !isParent_;
  notice.isRouter = isRouter_;
  notice.name = name_;
  ResetLocked(dismissed);
}

void RouterTableEntry::AnnounceLogoff(const LogoffNotice& notice) {
  if (notice.due) table_.PeerLoggedOff(notice.name, notice.isRouter);
}

void RouterTableEntry::Logoff(const std::string& name) {
  Dismissed dismissed;
  LogoffNotice notice;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    if (!BelongsToLocked(name)) throw BrelixMessaging::NotRegistered();
    LogoffLocked(dismissed, notice);
  }
  AnnounceLogoff(notice);
  Finish(dismissed);
}

void RouterTableEntry::Logoff() {
  Logoff(Name());
}

bool RouterTableEntry::LogoffSession(LogonGeneration generation) {
  Dismissed dismissed;
  LogoffNotice notice;
  {
    WriteGuard guard(lock_);
    if (!guard || generation != generation_) return false;
    LogoffLocked(dismissed, notice);
  }
  AnnounceLogoff(notice);
  Finish(dismissed);
  return true;
}

void RouterTableEntry::LogoffCertification() {
  Dismissed dismissed;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    if (logonState_ != kCertification) throw BrelixMessaging::NotLoggedOn();
    ResetLocked(dismissed);
  }
  Finish(dismissed);
}

bool RouterTableEntry::LogonToParentRouter(BrelixMessaging::Router_ptr) {
  LogTrace("RouterTableEntry::LogonToParentRouter\n");
  throw std::runtime_error("Logging on to a parent router is not available in this version");
}

}  // namespace MessageRouter
