// Polling: when this router asks a peer for its envelopes.
#include <ace/OS_NS_stdlib.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/RouterTableEntry.h"

namespace MessageRouter {

using ThreadHelper::WriteGuard;

namespace {

constexpr std::uint32_t kRandomMaximum = 32767;

// The spread is meant for numbers of 15 bits; the high half of what comes here is the better one.
std::uint32_t NextRandom(std::uint32_t& seed) {
  return (static_cast<std::uint32_t>(ACE_OS::rand_r(&seed)) >> 16) & kRandomMaximum;
}

}  // namespace

std::uint32_t RouterTableEntry::RandomisedLocked(std::uint32_t interval, bool randomise) {
  if (!randomise || interval == 0) return interval;
  interval = std::min(interval, kRandomMaximum);
  return NextRandom(randomSeed_) / (kRandomMaximum / interval) + interval / 2;
}

void RouterTableEntry::unsafe_enablePolling(const Thresholds& thresholds) {
  supplierState_ = kPollWaiting;
  if (expectedResponses_ != 0) {
    pollInterval_ =
        RandomisedLocked(thresholds.getterShortInterval, thresholds.randomizeGetterInterval);
    shortPollDeadline_ = Platform::SteadyNow() + std::chrono::seconds(thresholds.getterInterval);
  } else {
    pollInterval_ = RandomisedLocked(thresholds.getterInterval, thresholds.randomizeGetterInterval);
  }
}

void RouterTableEntry::responseExpected() {
  const Thresholds thresholds = host_.GetThresholds();
  std::uint32_t interval = 0;
  bool changed = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    changed = expectedResponses_ == 0 && logonState_ == kLoggedOn;
    if (changed) {
      pollInterval_ =
          RandomisedLocked(thresholds.getterShortInterval, thresholds.randomizeGetterInterval);
      interval = pollInterval_;
    }
    ++expectedResponses_;
    shortPollDeadline_ = Platform::SteadyNow() + std::chrono::seconds(thresholds.getterInterval);
  }
  if (!changed) return;
  Quietly([&] {
    LogDebug("RouterTableEntry::responseExpected(): set polling interval to %u seconds for %s\n",
             interval, Shown(Name()).c_str());
  });
}

void RouterTableEntry::responseNotRequired() {
  const Thresholds thresholds = host_.GetThresholds();
  std::uint32_t interval = 0;
  bool changed = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    changed = expectedResponses_ == 1 && logonState_ == kLoggedOn;
    if (changed) {
      pollInterval_ =
          RandomisedLocked(thresholds.getterInterval, thresholds.randomizeGetterInterval);
      interval = pollInterval_;
    }
    if (expectedResponses_ != 0) --expectedResponses_;
  }
  if (!changed) return;
  Quietly([&] {
    LogDebug("RouterTableEntry::responseNotRequired(): set polling interval to %u seconds for %s\n",
             interval, Shown(Name()).c_str());
  });
}

bool RouterTableEntry::readyForTimedPoll() {
  // The scan asks this of every entry; most are no passive suppliers.
  if (supplierState_ != kPollWaiting) return false;
  const Thresholds thresholds = host_.GetThresholds();
  std::uint32_t resetInterval = 0;
  std::uint32_t waited = 0;
  std::uint32_t nextInterval = 0;
  bool reset = false;
  bool due = false;
  {
    WriteGuard guard(lock_);
    if (!guard || logonState_ != kLoggedOn || supplierState_ != kPollWaiting) return false;
    const SteadyTime now = Platform::SteadyNow();
    if (expectedResponses_ != 0 && now >= shortPollDeadline_) {
      reset = true;
      expectedResponses_ = 0;
      pollInterval_ =
          RandomisedLocked(thresholds.getterInterval, thresholds.randomizeGetterInterval);
      resetInterval = pollInterval_;
    }
    due = !lastGet_ || now - *lastGet_ >= std::chrono::seconds(pollInterval_);
    if (due) {
      supplierState_ = kPollDue;
      waited = pollInterval_;
      pollInterval_ = RandomisedLocked(
          expectedResponses_ != 0 ? thresholds.getterShortInterval : thresholds.getterInterval,
          thresholds.randomizeGetterInterval);
      nextInterval = pollInterval_;
    }
  }
  if (!reset && !due) return false;
  Quietly([&] {
    const std::string name = Name();
    if (reset) {
      LogDebug(
          "RouterTableEntry::readyForTimedPoll(): reset current polling interval to %u seconds for "
          "%s\n",
          resetInterval, Shown(name).c_str());
    }
    if (!due) return;
    LogDebug("RouterTableEntry::readyForTimedPoll(): waited %u seconds for poll of %s\n", waited,
             Shown(name).c_str());
    LogDebug(
        "RouterTableEntry::readyForTimedPoll(): set next polling interval to %u seconds for %s\n",
        nextInterval, Shown(name).c_str());
  });
  return due;
}

bool RouterTableEntry::readyForNotifiedPoll() {
  {
    WriteGuard guard(lock_);
    if (!guard || logonState_ != kLoggedOn) return false;
    // The visit may have seen the end of the peer's queue already.
    if (supplierState_ == kPollRunning) notifiedWhilePolled_ = true;
    if (supplierState_ != kPollWaiting) return false;
    supplierState_ = kPollNotified;
  }
  // From here on nothing may fail: the caller is the one who brings the entry to a getter.
  if (LogEnabled(kLogDebug)) {
    Quietly([this] {
      LogDebug("RouterTableEntry::readyForNotifiedPoll(): await poll of %s\n",
               Shown(Name()).c_str());
    });
  }
  return true;
}

RouterTableEntry::Claim RouterTableEntry::ClaimForPolling() {
  Claim claim;
  WriteGuard guard(lock_);
  claim.generation = generation_;
  if (!guard || logonState_ != kLoggedOn) return claim;
  claim.notified = supplierState_ == kPollNotified;
  if (!claim.notified && supplierState_ != kPollDue) return claim;
  if (!polling_.Enter(&Visitors::worker)) return claim;
  supplierState_ = kPollRunning;
  notifiedWhilePolled_ = false;
  claim.acquired = true;
  return claim;
}

void RouterTableEntry::successfulGet(LogonGeneration generation) {
  Visitors turnedAway;
  bool again = false;
  bool current = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = polling_.Leave();
    current = generation == generation_;
    if (current) {
      supplierState_ = kPollWaiting;
      lastGet_ = Platform::SteadyNow();
      again = std::exchange(notifiedWhilePolled_, false);
    }
  }
  if (current && LogEnabled(kLogDebug)) {
    Quietly([this] {
      LogDebug("RouterTableEntry::successfulGet(): re-started polling interval for %s\n",
               Shown(Name()).c_str());
    });
  }
  if (again) host_.NotifiedPoll(*this);
  if (turnedAway.worker) host_.OfferToGetters(*this);
}

bool RouterTableEntry::failedGet(LogonGeneration generation) {
  Visitors turnedAway;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    turnedAway = polling_.Leave();
    if (generation == generation_) {
      supplierState_ = kPollFailed;
      return true;
    }
  }
  if (turnedAway.worker) host_.OfferToGetters(*this);
  return false;
}

}  // namespace MessageRouter
