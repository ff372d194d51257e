#pragma once

#include <BrelixMessaging.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "routing/ConsumerSide.h"
#include "routing/EnvelopeQueue.h"
#include "routing/RoutingHost.h"
#include "routing/SupplierSide.h"
#include "threads/Mutex.h"

namespace MessageRouter {

class RouterTable;

// Raised where an entry holds no certification message.
class NoCertificationMessage : public std::exception {
 public:
  const char* what() const noexcept override { return "No Certification message"; }
};

// Raised by every Reset: a worker that hung in an old session can tell that it is over.
using LogonGeneration = std::uint64_t;

// One neighbour: a client, a child router or the parent. Directions are named from the peer's side:
// a passive consumer is pushed to, an active consumer pulls; a passive supplier is polled, an
// active supplier pushes.
//
// Threads: any; one read-write lock guards the entry. No remote call, no disk access and no call of
// RoutingHost happens under it.
class RouterTableEntry {
 public:
  enum LogonState : std::uint32_t {
    kNeverUsed = 0,
    kLoggedOn = 1,
    kCertification = 2,
    kCertificationReserved = 3,
    kLoggedOff = 4,
  };
  using enum SupplierSide::States;
  using enum ConsumerSide::States;

  // The objects that a logon activated for the peer; nil where none is owed.
  struct LocalPeerObjects {
    CORBA::Object_var consumer;
    BrelixMessaging::NotifyConsumer_var notify;
    BrelixMessaging::EnvelopeSupplier_var supplier;
  };
  // The outcome of a claim. All but `acquired` is set whether or not it was acquired. Whoever
  // acquired it may call the peer, and reports the outcome once, however the call ends: until then
  // nobody else claims the same direction of this entry, not even for a new session of the peer.
  struct Claim {
    bool acquired = false;
    LogonGeneration generation = 0;
    bool notified = false;  // of a poll: the peer asked for it
  };
  // What a caller may do here.
  struct Standing {
    bool loggedOn = false;
    bool isRouter = false;
  };
  // The pools of workers. An entry has a place of its own in the queue of each, for want of memory
  // for another.
  enum Pool { kSenderPool, kGetterPool, kTimeoutPool, kThresholdPool, kPoolCount };
  struct PlaceInQueue {
    bool taken = false;
    RouterTableEntry* next = nullptr;
  };
  struct PeerReferences {
    BrelixMessaging::RouterConsumer_var routerConsumer;
    BrelixMessaging::EnvelopeConsumer_var messageConsumer;
    BrelixMessaging::NotifyConsumer_var notifyConsumer;
    BrelixMessaging::RouterSupplier_var routerSupplier;
  };

  RouterTableEntry(const std::string& name, bool isRouter, bool isParent, RouterTable& table,
                   RoutingHost& host);
  ~RouterTableEntry();
  RouterTableEntry(const RouterTableEntry&) = delete;
  RouterTableEntry& operator=(const RouterTableEntry&) = delete;

  // Queries. Those of the flags and states read atomics.
  std::string Name() const;  // copied out under the lock
  // Of the peer of that name; nothing if the entry is not, or no longer, this peer's.
  std::optional<Standing> StandingOf(const std::string& name) const;
  // What is told of the peer of that name, as it is at one moment; nothing unless it is registered.
  // The parent's goes under its former names too.
  std::optional<BrelixMessaging::RouterClient> StatusOf(const std::string& name) const;
  bool IsRegistered() const;
  bool IsParent() const;
  bool IsRouter() const;
  bool IsLoggedOn() const;         // logonState 1, 2 or 3
  bool IsRoutable() const;         // registered, or logonState 2
  bool IsPassiveConsumer() const;  // logonState 1 and consumerState 3 or 4
  bool HasEnvelopes() const;
  std::uint32_t GetLogonState() const;
  std::uint32_t GetSupplierState() const;
  std::uint32_t GetConsumerState() const;
  LogonGeneration Generation() const;
  PeerReferences References() const;
  bool HasNotifyConsumer() const;

  // Whether the parent has yet to be told what has become of this peer. No other peer takes the
  // entry over until then. Debts have numbers: one that comes up while another is told of stays.
  std::uint64_t OweNews() { return ++newsOwed_; }
  bool OwesNews() const { return newsSettled_ < newsOwed_; }
  std::uint64_t LastNewsOwed() const { return newsOwed_; }
  // That debt and all before it have been told of.
  void SettleNews(std::uint64_t debt);
  // There was nothing to tell. Where earlier debts are open it goes with them.
  void CancelNews(std::uint64_t debt);

  // For that pool's queue alone, whose lock guards it.
  PlaceInQueue& PlaceIn(Pool pool) { return places_[pool]; }

  // The queue. Enqueue and Requeue return false, and take nothing, if the entry is no longer
  // routable under `name`: the caller routes the envelope anew.
  bool Enqueue(const Envelope& envelope, const std::string& name);
  // Needs no memory.
  bool Requeue(EnvelopeQueue::Taken& taken, const std::string& name);
  bool PopNext(Envelope& out);
  // The same, for a sender of that session: nothing is taken once it is over.
  bool PopNext(EnvelopeQueue::Taken& out, LogonGeneration session);
  // For the peer of that name, as is CancelSupplied: they throw Rejected if the entry is no longer
  // this peer's. False if nothing waits: whatever comes from then on causes another notification.
  bool PeekNext(Envelope& out, const std::string& name);
  // Throws NoCertificationMessage too.
  void PeekCertification(Envelope& out, const std::string& name);
  // Retires the envelope with that id and exactly that originator. False if there is none.
  bool Cancel(const std::string& originator, std::uint32_t messageId);
  // The same for one that was supplied to the peer and may be stored under any of these
  // originators. The next envelope is looked at first: another one that matches was hardly supplied
  // yet.
  bool CancelSupplied(const std::vector<std::string>& originators, std::uint32_t messageId,
                      const std::string& name);
  // Reports and retires all that have expired, or as many as there are until `goOn` says no.
  void RetireExpired(const std::function<bool()>& goOn = nullptr);
  // Empties the queue without retiring anything.
  std::vector<Envelope> TakeAll();

  // Registration; the table calls these.
  void MarkRegistered(bool isRouter);
  void MarkUnregistered();

  // `name` is whose logon or logoff it is: an entry that has become another peer's since it was
  // found is left alone.
  // Logons throw BrelixMessaging::NotRegistered, and Rejected if the lock can't be taken. With
  // `loggingOn` false the entry is restored from the table file: no objects are activated, and the
  // lock's failure is silent.
  LocalPeerObjects LogonClient(const std::string& name,
                               BrelixMessaging::EnvelopeConsumer_ptr consumer,
                               BrelixMessaging::NotifyConsumer_ptr notify, std::int32_t threshold,
                               bool loggingOn);
  LocalPeerObjects LogonRouter(const std::string& name,
                               BrelixMessaging::RouterConsumer_ptr consumer,
                               BrelixMessaging::RouterSupplier_ptr supplier,
                               BrelixMessaging::NotifyConsumer_ptr notify, std::int32_t threshold,
                               bool loggingOn);
  // Throws AlreadyLoggedOn if the name is logged on as a client or router. A reservation ends here,
  // whatever comes of it.
  LocalPeerObjects LogonCertification(const std::string& name);
  // Both throw NotRegistered and NotLoggedOn.
  void Logoff(const std::string& name);
  void Logoff();
  // As Logoff, but does nothing if that session is over. Returns whether it was this session's.
  bool LogoffSession(LogonGeneration generation);
  void LogoffCertification();  // throws NotLoggedOn
  // This router's logon to its parent: one remote call, made without the lock. Returns the session
  // if it stood at the end. Throws std::runtime_error where no object can be activated.
  std::optional<LogonGeneration> LogonToParentRouter(BrelixMessaging::Router_ptr parent);
  // For a free entry: takes the new name and is reserved for a certification logon. Envelopes that
  // waited under the old name are in `leftovers`.
  bool TakeOver(const std::string& name, std::vector<Envelope>& leftovers);
  // Throws std::logic_error unless this is the parent. False if the lock can't be taken.
  bool SetName(const std::string& name);

  // Polling, when this router is the one that asks.
  void responseExpected();
  void responseNotRequired();
  bool readyForTimedPoll();
  // False, too, while a poll runs; its successful end then asks for one more notified poll.
  bool readyForNotifiedPoll();
  // The outcome of a poll whose session is over offers the entry to the getters again if a poll of
  // the new one was turned away meanwhile.
  Claim ClaimForPolling();
  void successfulGet(LogonGeneration generation);
  // False if that session is over.
  bool failedGet(LogonGeneration generation);

  // Pushing and notifying share one direction: each outcome offers the entry anew to those that
  // were turned away meanwhile.
  Claim ClaimForSending();
  // Wakes the sender pool for this entry if more waits.
  void SendFinished(LogonGeneration generation);
  // False if that session is over. The claim may be one that was not acquired.
  bool SendFailed(const Claim& claim);

  // Notification.
  // Nothing is claimed unless that session stands.
  Claim NotificationWanted(LogonGeneration session);
  Claim NotificationRetryDue();
  void NotificationAccepted(LogonGeneration generation, std::int32_t threshold);
  void NotificationFailed(LogonGeneration generation);
  // The failed call of a threshold worker: the back-off stays as it is.
  void ThresholdCallFailed(LogonGeneration generation);
  bool NotificationFinished(LogonGeneration generation);  // true: look again at once
  // Does nothing if the entry is not, or no longer, the peer's of that name.
  void TouchLastPull(const std::string& name);
  bool PullTimedOut() const;
  // False, too, if that session is over.
  bool PullTimedOut(LogonGeneration session) const;

 private:
  friend class RouterTable;  // Detach and the outcome of MarkUnregistered
  friend class Routing;      // TryEnqueue, PopUnroutable

  // What a Reset took out of the entry, for Finish once no lock is held.
  struct Dismissed {
    PeerReferences references;
    LocalPeerObjects objects;
    bool parentLinkLost = false;
  };
  // The notice that a logoff owes.
  struct LogoffNotice {
    bool due = false;
    bool lost = false;  // there was no memory for it
    bool isRouter = false;
    std::string name;
  };
  // What a logon has to tell in the log.
  struct SessionReport {
    bool isRouter = false;
    const char* consumer = "";
    const char* supplier = "";
    std::optional<std::uint32_t> pollInterval;
  };
  // Which objects this router has activated for its session with the parent.
  struct ActiveObjects {
    bool consumer = false;
    bool notify = false;
    bool supplier = false;
  };
  // Activated objects that no session owns yet.
  class PendingObjects;

  void ResetLocked(Dismissed& dismissed) REQUIRES(lock_);
  // Deactivates and tells the parent logon; swallows what fails on the way.
  void Finish(Dismissed& dismissed);
  // Whether this is the entry of the caller of that name. A former parent is not the parent, though
  // its name still leads here.
  bool IsCallersLocked(const std::string& name) const REQUIRES_SHARED(lock_);
  // For what waits: the parent's entry is the parent's under whatever name it was found.
  bool BelongsToLocked(const std::string& name) const REQUIRES_SHARED(lock_);
  bool RoutableLocked(const std::string& name) const REQUIRES_SHARED(lock_);

  // The caller runs Finish when it holds no lock. The second returns whether the entry was
  // registered, and does nothing if it is not, or no longer, that peer's.
  void MarkRegistered(bool isRouter, Dismissed& dismissed);
  bool MarkUnregistered(const std::string& name, Dismissed& dismissed);
  // The table forgets this entry: it takes nothing from here on, and nobody can log on to it.
  void Detach(Dismissed& dismissed, std::vector<Envelope>& leftovers);
  // As Enqueue, but moves the envelope in; left as it is where false is returned or
  // std::bad_alloc is thrown.
  // `senderAtWork`: a sender has claimed the entry, and will look at the queue before it leaves.
  bool TryEnqueue(Envelope& envelope, const std::string& name, bool& senderAtWork);
  // Pops only while the entry takes no envelopes under its name.
  bool PopUnroutable(Envelope& out);

  LocalPeerObjects LogonPeer(const std::string& name, bool isRouter, PeerReferences& references,
                             std::int32_t threshold, bool loggingOn);
  void ActivateObjects(bool isRouter, const PeerReferences& references, LocalPeerObjects& objects);
  // After a failed activation: the old session is gone, as if it had been reset first.
  void AbandonLogon(const std::string& name, LogonGeneration before);
  // The same for this router's logon to its parent, whatever has become of the name.
  void AbandonParentLogon(LogonGeneration before);
  SessionReport ApplyReferencesLocked(std::int32_t threshold, const Thresholds& thresholds)
      REQUIRES(lock_);
  void Announce(const SessionReport& report, bool loggingOn) const;
  // The second half of LogonToParentRouter: false if that session is over.
  bool BeginParentSession(LogonGeneration session, PeerReferences& references,
                          const ActiveObjects& active);
  void LogoffLocked(Dismissed& dismissed, LogoffNotice& notice) REQUIRES(lock_);
  // Throws, after the session has ended, if the notice fails.
  void EndSession(const LogoffNotice& notice, Dismissed& dismissed);

  // `method` set the polling interval that `what` tells of.
  void LogInterval(const char* method, const char* what, std::uint32_t seconds) const;
  bool MayNotifyLocked() const REQUIRES_SHARED(lock_);
  // `outcome` gets the consumer side where the session stands; the result is its.
  template <class Outcome>
  bool EndNotification(LogonGeneration generation, Outcome&& outcome);
  // For those that were turned away at the end of a push or notification.
  void OfferAgain(const Visitors& turnedAway);

  RouterTable& table_;
  RoutingHost& host_;
  const bool isParent_;
  std::array<PlaceInQueue, kPoolCount> places_;

  mutable ThreadHelper::RWMutex lock_;

  // Written under the lock, read without it.
  std::atomic<bool> registered_{false};
  std::atomic<bool> isRouter_;
  std::atomic<std::uint32_t> logonState_{kNeverUsed};
  std::atomic<LogonGeneration> generation_{0};
  std::atomic<bool> hasNotifyConsumer_{false};
  std::atomic<std::uint64_t> newsOwed_{0};
  std::atomic<std::uint64_t> newsSettled_{0};

  EnvelopeQueue envelopes_ GUARDED_BY(lock_);
  std::string name_ GUARDED_BY(lock_);
  bool detached_ GUARDED_BY(lock_) = false;
  SupplierSide supplier_ GUARDED_BY(lock_);
  ConsumerSide consumer_ GUARDED_BY(lock_);
  PeerReferences references_ GUARDED_BY(lock_);
  LocalPeerObjects local_ GUARDED_BY(lock_);

  // Of the two, read without the lock.
  const std::atomic<std::uint32_t>& supplierState_{supplier_.State()};
  const std::atomic<std::uint32_t>& consumerState_{consumer_.State()};
};

}  // namespace MessageRouter
