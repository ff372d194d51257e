// Sessions of an entry: how they begin and end. Everything that calls the host stands outside of
// the entry's lock: before it what a logon will need, after it what a reset took out.
#include <new>

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
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

  // As MoveTo, but keeps what is there where nothing takes its place.
  void AddTo(LocalPeerObjects& owner) {
    if (!CORBA::is_nil(objects.consumer)) Move(objects.consumer, owner.consumer);
    if (!CORBA::is_nil(objects.notify)) Move(objects.notify, owner.notify);
    if (!CORBA::is_nil(objects.supplier)) Move(objects.supplier, owner.supplier);
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
  supplier_.Reset();
  consumer_.Reset();
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
  // There is no client of the parent's name, and its entry is no client's.
  if (!registered_ || (isParent_ && !isRouter)) throw BrelixMessaging::NotRegistered();
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
  SessionReport report;
  {
    WriteGuard guard(lock_);
    if (!guard) {
      if (loggingOn) throw BrelixMessaging::Rejected();
      return activated;
    }
    if (!registered_ || !IsCallersLocked(name)) throw BrelixMessaging::NotRegistered();
    ResetLocked(dismissed);
    isRouter_ = isRouter;
    Move(references.routerConsumer, references_.routerConsumer);
    Move(references.messageConsumer, references_.messageConsumer);
    Move(references.notifyConsumer, references_.notifyConsumer);
    Move(references.routerSupplier, references_.routerSupplier);
    pending.MoveTo(local_);
    activated = local_;
    report = ApplyReferencesLocked(threshold, thresholds);
    logonState_ = kLoggedOn;
    if (isRouter) consumer_.TouchLastPull(Platform::SteadyNow());
  }
  Finish(dismissed);
  Announce(report, loggingOn);
  return activated;
}

// The session has begun: it does not fail for want of a line.
void RouterTableEntry::Announce(const SessionReport& report, bool loggingOn) const {
  Quietly([&] {
    const std::string name = Name();
    if (report.pollInterval) {
      LogDebug(
          "RouterTableEntry::unsafe_enablePolling(): set polling interval to %u seconds for %s\n",
          *report.pollInterval, Shown(name).c_str());
    }
    // A client's state is told by its logon alone.
    if (!report.isRouter) return;
    LogInfo("RouterTableEntry state (%srouter, %s): %s is %s, %s\n", "",
            loggingOn ? "logging on" : "restoring", Shown(name).c_str(), report.consumer,
            report.supplier);
  });
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
    if (!guard || generation_ != before || !IsCallersLocked(name)) return;
    ResetLocked(dismissed);
  }
  Finish(dismissed);
}

void RouterTableEntry::AbandonParentLogon(LogonGeneration before) {
  Dismissed dismissed;
  {
    WriteGuard guard(lock_);
    if (!guard || generation_ != before) return;
    ResetLocked(dismissed);
  }
  Finish(dismissed);
}

RouterTableEntry::SessionReport RouterTableEntry::ApplyReferencesLocked(
    std::int32_t threshold, const Thresholds& thresholds) {
  SessionReport report;
  report.isRouter = isRouter_;
  hasNotifyConsumer_ = !CORBA::is_nil(references_.notifyConsumer);
  if (!CORBA::is_nil(references_.routerConsumer) || !CORBA::is_nil(references_.messageConsumer)) {
    consumer_.BeginPushed();
    report.consumer = "passive consumer";
  } else if (hasNotifyConsumer_) {
    consumer_.BeginNotified(threshold);
    report.consumer = "active consumer (will try to notify)";
  } else {
    consumer_.BeginSilent();
    report.consumer = "active consumer (no notification)";
  }
  if (CORBA::is_nil(references_.routerSupplier)) {
    supplier_.BeginPushing();
    report.supplier = "active supplier";
    return report;
  }
  report.pollInterval = supplier_.BeginPolling(thresholds, Platform::SteadyNow());
  report.supplier = "passive supplier";
  return report;
}

RouterTableEntry::LocalPeerObjects RouterTableEntry::LogonCertification(const std::string& name) {
  if (logonState_ == kLoggedOn) throw BrelixMessaging::AlreadyLoggedOn();
  // Whoever asks for a certificate is not the parent, and what waits for that is not for others.
  if (isParent_) throw BrelixMessaging::Rejected();
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
    consumer_.BeginSilent();
    supplier_.BeginPushing();
    logonState_ = kCertification;
    consumer_.TouchLastPull(Platform::SteadyNow());
  }
  Finish(dismissed);
  return activated;
}

void RouterTableEntry::LogoffLocked(Dismissed& dismissed, LogoffNotice& notice) {
  const std::uint32_t state = logonState_;
  // The session with the parent is this router's own, whatever has become of the name.
  if (!registered_ && !(isParent_ && state == kLoggedOn)) throw BrelixMessaging::NotRegistered();
  if (state != kLoggedOn && state != kCertification) throw BrelixMessaging::NotLoggedOn();
  // First of all: a session that has failed must not outlive that for want of memory.
  ResetLocked(dismissed);
  if (state != kLoggedOn || isParent_) return;
  notice.isRouter = isRouter_;
  try {
    notice.name = name_;
    notice.due = true;
  } catch (const std::bad_alloc&) {
    notice.lost = true;
  }
}

// Whatever comes of the notice, nothing of the session stays active.
void RouterTableEntry::EndSession(const LogoffNotice& notice, Dismissed& dismissed) {
  try {
    if (notice.due) table_.PeerLoggedOff(notice.name, notice.isRouter);
  } catch (...) {
    Finish(dismissed);
    throw;
  }
  Finish(dismissed);
  if (notice.lost) throw std::bad_alloc();
}

void RouterTableEntry::Logoff(const std::string& name) {
  Dismissed dismissed;
  LogoffNotice notice;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    if (!IsCallersLocked(name)) throw BrelixMessaging::NotRegistered();
    LogoffLocked(dismissed, notice);
  }
  EndSession(notice, dismissed);
}

void RouterTableEntry::Logoff() {
  Dismissed dismissed;
  LogoffNotice notice;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    LogoffLocked(dismissed, notice);
  }
  EndSession(notice, dismissed);
}

bool RouterTableEntry::LogoffSession(LogonGeneration generation) {
  Dismissed dismissed;
  LogoffNotice notice;
  {
    WriteGuard guard(lock_);
    if (!guard || generation != generation_) return false;
    LogoffLocked(dismissed, notice);
  }
  EndSession(notice, dismissed);
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

// The objects are activated before the lock is taken, and the call is made without it: the parent
// may call back while it runs. What came of it counts only if the session still stands.
std::optional<LogonGeneration> RouterTableEntry::LogonToParentRouter(
    BrelixMessaging::Router_ptr parent) {
  LogTrace("RouterTableEntry::LogonToParentRouter\n");
  LocalObjects& factory = host_.Objects();
  PendingObjects own(host_);
  BrelixMessaging::RouterConsumer_var consumer;
  BrelixMessaging::RouterSupplier_var supplier;
  BrelixMessaging::NotifyConsumer_var notify;
  if (GetConfigBool("ActiveConsumer", true)) {
    notify = factory.CreateNotifyConsumer();
    own.objects.notify = notify;
    LogInfo("RouterTableEntry::LogonToParentRouter() - logging on as active consumer\n");
  } else {
    consumer = factory.CreateRouterConsumer();
    own.objects.consumer = CORBA::Object::_duplicate(consumer);
    LogInfo("RouterTableEntry::LogonToParentRouter() - logging on as passive consumer\n");
  }
  if (GetConfigBool("ActiveSupplier", true)) {
    supplier = factory.CreateRouterSupplier();
    own.objects.supplier = BrelixMessaging::RouterSupplier::_duplicate(supplier);
  }

  Dismissed dismissed;
  LogonGeneration session = 0;
  {
    WriteGuard guard(lock_);
    if (!guard) return std::nullopt;
    ResetLocked(dismissed);
    own.MoveTo(local_);
    session = generation_;
    // Others that bear the parent's name may have changed these.
    registered_ = !detached_;
    isRouter_ = true;
    logonState_ = kLoggedOn;
  }
  Finish(dismissed);

  PeerReferences references;
  try {
    Broker::RepeatOnce([&] {
      parent->Logon(consumer, supplier, notify, references.routerSupplier.out(),
                    references.routerConsumer.out(), references.notifyConsumer.out());
    });
  } catch (const CORBA::Exception& exception) {
    {
      WriteGuard guard(lock_);
      if (guard && generation_ == session) logonState_ = kLoggedOff;
    }
    Quietly([&] { LogCaughtCorbaException("RouterTableEntry", exception, "LogonToParentRouter"); });
    return std::nullopt;
  } catch (...) {
    AbandonParentLogon(session);
    throw;
  }
  try {
    if (!BeginParentSession(session, references,
                            {.consumer = !CORBA::is_nil(consumer),
                             .notify = !CORBA::is_nil(notify),
                             .supplier = !CORBA::is_nil(supplier)})) {
      return std::nullopt;
    }
  } catch (...) {
    AbandonParentLogon(session);
    throw;
  }
  return session;
}

bool RouterTableEntry::BeginParentSession(LogonGeneration session, PeerReferences& references,
                                          const ActiveObjects& active) {
  // What the parent's answer calls for beside what it was given.
  LocalObjects& factory = host_.Objects();
  PendingObjects more(host_);
  if (CORBA::is_nil(references.routerConsumer) && !active.supplier) {
    more.objects.supplier = factory.CreateRouterSupplier();
  }
  if (!CORBA::is_nil(references.routerSupplier)) {
    if (!active.notify) more.objects.notify = factory.CreateNotifyConsumer();
  } else if (!active.consumer) {
    more.objects.consumer = factory.CreateRouterConsumer();
  }

  const Thresholds thresholds = host_.GetThresholds();
  SessionReport report;
  {
    WriteGuard guard(lock_);
    if (!guard || generation_ != session) return false;
    Move(references.routerConsumer, references_.routerConsumer);
    Move(references.routerSupplier, references_.routerSupplier);
    Move(references.notifyConsumer, references_.notifyConsumer);
    more.AddTo(local_);
    report = ApplyReferencesLocked(0, thresholds);
  }
  Announce(report, true);
  return true;
}

}  // namespace MessageRouter
