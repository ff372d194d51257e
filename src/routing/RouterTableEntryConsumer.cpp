// The way out: pushing to a peer, and telling a peer that fetches for itself that something waits.
#include "routing/RouterTableEntry.h"

namespace MessageRouter {

using ThreadHelper::ReadGuard;
using ThreadHelper::WriteGuard;

RouterTableEntry::Claim RouterTableEntry::ClaimForSending() {
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  claim.acquired = guard && logonState_ == kLoggedOn && consumer_.ClaimForSending();
  return claim;
}

// The state and the look at the queue belong together: an envelope that comes after it finds the
// entry idle, and its own visit sends it.
void RouterTableEntry::SendFinished(LogonGeneration generation) {
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = consumer_.Leave();
    if (generation == generation_ && consumer_.SendFinished()) {
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
    if (claim.acquired) turnedAway = consumer_.Leave();
    current = claim.generation == generation_;
    if (current) consumer_.SendFailed();
  }
  // Where the session stands the caller ends it, and nobody has anything to do for it.
  if (!current) OfferAgain(turnedAway);
  return current;
}

void RouterTableEntry::OfferAgain(const Visitors& turnedAway) {
  if (turnedAway.worker) host_.OfferToSenders(*this);
  if (turnedAway.threshold) host_.OfferToThreshold(*this);
}

bool RouterTableEntry::MayNotifyLocked() const {
  return logonState_ == kLoggedOn && !CORBA::is_nil(references_.notifyConsumer);
}

RouterTableEntry::Claim RouterTableEntry::NotificationWanted(LogonGeneration session) {
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  if (!guard || generation_ != session) return claim;
  std::optional<std::int32_t> priority;
  const Envelope* const next = MayNotifyLocked() ? envelopes_.Next() : nullptr;
  if (next != nullptr) priority = static_cast<std::int32_t>(next->Priority());
  claim.acquired = consumer_.ClaimForNotifying(priority);
  return claim;
}

RouterTableEntry::Claim RouterTableEntry::NotificationRetryDue() {
  const Thresholds thresholds = host_.GetThresholds();
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  claim.acquired =
      guard && MayNotifyLocked() && consumer_.ClaimForRetry(thresholds, Platform::SteadyNow());
  return claim;
}

template <class Outcome>
bool RouterTableEntry::EndNotification(LogonGeneration generation, Outcome&& outcome) {
  Visitors turnedAway;
  bool again = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    turnedAway = consumer_.Leave();
    if (generation == generation_) again = outcome(consumer_, Platform::SteadyNow());
  }
  OfferAgain(turnedAway);
  return again;
}

void RouterTableEntry::NotificationAccepted(LogonGeneration generation, std::int32_t threshold) {
  EndNotification(generation, [threshold](ConsumerSide& consumer, ConsumerSide::Time now) {
    consumer.NotificationAccepted(threshold, now);
    return false;
  });
}

void RouterTableEntry::NotificationFailed(LogonGeneration generation) {
  const Thresholds thresholds = host_.GetThresholds();
  EndNotification(generation, [&thresholds](ConsumerSide& consumer, ConsumerSide::Time now) {
    consumer.NotificationFailed(thresholds, now);
    return false;
  });
}

void RouterTableEntry::ThresholdCallFailed(LogonGeneration generation) {
  EndNotification(generation, [](ConsumerSide& consumer, ConsumerSide::Time now) {
    consumer.RetryFailed(now);
    return false;
  });
}

bool RouterTableEntry::NotificationFinished(LogonGeneration generation) {
  return EndNotification(generation, [](ConsumerSide& consumer, ConsumerSide::Time now) {
    return consumer.NotificationFinished(now);
  });
}

void RouterTableEntry::TouchLastPull(const std::string& name) {
  WriteGuard guard(lock_);
  if (!guard || !IsCallersLocked(name)) return;
  if (IsLoggedOn()) {
    consumer_.TouchLastPull(Platform::SteadyNow());
  } else {
    consumer_.ForgetLastPull();
  }
}

bool RouterTableEntry::PullTimedOut() const {
  return PullTimedOut(Generation());
}

bool RouterTableEntry::PullTimedOut(LogonGeneration session) const {
  // The scan asks this of every entry.
  if (!isRouter_ || !IsLoggedOn() || !ConsumerSide::CountsPulls(consumerState_)) return false;
  const std::uint32_t limit = host_.GetThresholds().activeConsumerConnectionTimeout;
  ReadGuard guard(lock_);
  return guard && session == generation_ && IsLoggedOn() &&
         consumer_.PullTimedOut(limit, Platform::SteadyNow());
}

}  // namespace MessageRouter
