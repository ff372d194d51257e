// The way out: pushing to a peer, and telling a peer that fetches for itself that something waits.
#include <algorithm>
#include <chrono>

#include "routing/RouterTableEntry.h"

namespace MessageRouter {

using ThreadHelper::ReadGuard;
using ThreadHelper::WriteGuard;

RouterTableEntry::Claim RouterTableEntry::ClaimForSending() {
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  if (!guard || logonState_ != kLoggedOn || consumerState_ != kPushIdle) return claim;
  if (!outgoing_.Enter(&Visitors::worker)) return claim;
  consumerState_ = kPushBusy;
  claim.acquired = true;
  return claim;
}

// The state and the look at the queue belong together: an envelope that comes after it finds the
// entry idle, and its own visit sends it.
void RouterTableEntry::SendFinished(LogonGeneration generation) {
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = outgoing_.Leave();
    if (generation == generation_ && consumerState_ == kPushBusy) {
      consumerState_ = kPushIdle;
      turnedAway.worker = turnedAway.worker || !envelopes_.Empty();
    }
  }
  OfferAgain(turnedAway);
}

bool RouterTableEntry::SendFailed(const Claim& claim) {
  Visitors turnedAway;
  bool current = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    if (claim.acquired) turnedAway = outgoing_.Leave();
    current = claim.generation == generation_;
    if (current) consumerState_ = kPushFailed;
  }
  // Where the session stands the caller ends it, and nobody has anything to do for it.
  if (!current) OfferAgain(turnedAway);
  return current;
}

void RouterTableEntry::OfferAgain(const Visitors& turnedAway) {
  if (turnedAway.worker) host_.OfferToSenders(*this);
  if (turnedAway.threshold) host_.OfferToThreshold(*this);
}

// A threshold of 0 refuses nothing: one envelope of a negative priority, which stands at the exit,
// would keep the peer from hearing of all others.
bool RouterTableEntry::IsWorthNotifyingLocked(const Envelope& envelope) const {
  return notificationThreshold_ == 0 ||
         static_cast<std::int32_t>(envelope.Priority()) >= notificationThreshold_;
}

RouterTableEntry::Claim RouterTableEntry::NotificationWanted(LogonGeneration session) {
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  if (!guard || generation_ != session) return claim;
  const std::uint32_t state = consumerState_;
  const Envelope* next = envelopes_.Next();
  if (logonState_ == kLoggedOn && !CORBA::is_nil(references_.notifyConsumer) &&
      (state == kNothingSent || state == kNotified) && next != nullptr &&
      IsWorthNotifyingLocked(*next)) {
    if (!outgoing_.Enter(&Visitors::worker)) return claim;
    consumerState_ = kNotifying;
    claim.acquired = true;
  } else if (state == kNotifyingPulledEmpty) {
    consumerState_ = kNotifyAgain;
  }
  return claim;
}

RouterTableEntry::Claim RouterTableEntry::NotificationRetryDue() {
  const Thresholds thresholds = host_.GetThresholds();
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  if (!guard || logonState_ != kLoggedOn || CORBA::is_nil(references_.notifyConsumer)) return claim;
  if (consumerState_ != kNothingSent && consumerState_ != kNoNotification) return claim;
  const SteadyTime now = Platform::SteadyNow();
  if (nextNotification_ && now <= *nextNotification_) return claim;
  if (!outgoing_.Enter(&Visitors::threshold)) return claim;
  const std::uint64_t wanted = notificationRetry_ == 0
                                   ? thresholds.notificationThresholdInitialRetrySecs
                                   : std::uint64_t{notificationRetry_} * 2;
  notificationRetry_ = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(wanted, thresholds.notificationThresholdMaxRetrySecs));
  nextNotification_ = now + std::chrono::seconds(notificationRetry_);
  consumerState_ = kNotifying;
  claim.acquired = true;
  return claim;
}

bool RouterTableEntry::NotificationRunningLocked() const {
  const std::uint32_t state = consumerState_;
  return state == kNotifying || state == kNotifyingPulledEmpty || state == kNotifyAgain;
}

void RouterTableEntry::NotificationAccepted(LogonGeneration generation, std::int32_t threshold) {
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = outgoing_.Leave();
    if (generation == generation_ && NotificationRunningLocked()) {
      consumerState_ = kNotified;
      notificationThreshold_ = threshold;
      TouchLastPullLocked();
    }
  }
  OfferAgain(turnedAway);
}

void RouterTableEntry::NotificationFailed(LogonGeneration generation) {
  const Thresholds thresholds = host_.GetThresholds();
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = outgoing_.Leave();
    if (generation == generation_ && NotificationRunningLocked()) {
      NoNotificationLocked();
      notificationRetry_ = thresholds.notificationThresholdInitialRetrySecs;
      nextNotification_ = Platform::SteadyNow() + std::chrono::seconds(notificationRetry_);
    }
  }
  OfferAgain(turnedAway);
}

void RouterTableEntry::ThresholdCallFailed(LogonGeneration generation) {
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = outgoing_.Leave();
    if (generation == generation_ && NotificationRunningLocked()) NoNotificationLocked();
  }
  OfferAgain(turnedAway);
}

// A pull during the call has made lastPull_ not applicable, and a router that is silent from here
// on must still time out. Where there was no pull, what was not applicable before stays so.
void RouterTableEntry::NoNotificationLocked() {
  const bool pulled = consumerState_ != kNotifying;
  consumerState_ = kNoNotification;
  if (pulled && !lastPull_) TouchLastPullLocked();
}

bool RouterTableEntry::NotificationFinished(LogonGeneration generation) {
  Visitors turnedAway;
  bool again = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    turnedAway = outgoing_.Leave();
    if (generation == generation_) {
      again = consumerState_ == kNotifyAgain;
      if (NotificationRunningLocked()) consumerState_ = kNotified;
      // After the state: pulls don't count in the ones that a notification passes through.
      TouchLastPullLocked();
    }
  }
  OfferAgain(turnedAway);
  return again;
}

void RouterTableEntry::EnvelopePulledWithNothingThereLocked() {
  if (consumerState_ == kNotifying) consumerState_ = kNotifyingPulledEmpty;
}

bool RouterTableEntry::CountsPulls() const {
  if (!IsLoggedOn()) return false;
  const std::uint32_t state = consumerState_;
  return state == kNothingSent || state == kNoNotification || state == kNotified ||
         state == kNotifying;
}

void RouterTableEntry::TouchLastPull(const std::string& name) {
  WriteGuard guard(lock_);
  if (guard && IsCallersLocked(name)) TouchLastPullLocked();
}

void RouterTableEntry::TouchLastPullLocked() {
  if (CountsPulls()) {
    lastPull_ = Platform::SteadyNow();
  } else {
    lastPull_.reset();
  }
}

bool RouterTableEntry::PullTimedOut() const {
  return PullTimedOut(Generation());
}

bool RouterTableEntry::PullTimedOut(LogonGeneration session) const {
  if (!isRouter_ || !CountsPulls()) return false;
  const std::chrono::seconds limit(host_.GetThresholds().activeConsumerConnectionTimeout);
  ReadGuard guard(lock_);
  return guard && session == generation_ && CountsPulls() && lastPull_ &&
         Platform::SteadyNow() - *lastPull_ > limit;
}

}  // namespace MessageRouter
