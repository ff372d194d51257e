// Polling: when this router asks a peer for its envelopes.
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/RouterTableEntry.h"

namespace MessageRouter {

using ThreadHelper::WriteGuard;

void RouterTableEntry::LogInterval(const char* method, const char* what,
                                   std::uint32_t seconds) const {
  if (!LogEnabled(kLogDebug)) return;
  Quietly([&] {
    LogDebug("RouterTableEntry::%s(): %s %u seconds for %s\n", method, what, seconds,
             Shown(Name()).c_str());
  });
}

void RouterTableEntry::responseExpected() {
  const Thresholds thresholds = host_.GetThresholds();
  std::optional<std::uint32_t> interval;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    interval =
        supplier_.ExpectResponse(logonState_ == kLoggedOn, thresholds, Platform::SteadyNow());
  }
  if (interval) LogInterval("responseExpected", "set polling interval to", *interval);
}

void RouterTableEntry::responseNotRequired() {
  const Thresholds thresholds = host_.GetThresholds();
  std::optional<std::uint32_t> interval;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    interval = supplier_.EndResponse(logonState_ == kLoggedOn, thresholds);
  }
  if (interval) LogInterval("responseNotRequired", "set polling interval to", *interval);
}

bool RouterTableEntry::readyForTimedPoll() {
  // The scan asks this of every entry; most are no passive suppliers.
  if (supplierState_ != kPollWaiting) return false;
  const Thresholds thresholds = host_.GetThresholds();
  SupplierSide::TimedPoll poll;
  {
    WriteGuard guard(lock_);
    if (!guard || logonState_ != kLoggedOn) return false;
    poll = supplier_.CheckTime(thresholds, Platform::SteadyNow());
  }
  const char* const method = "readyForTimedPoll";
  if (poll.reset) LogInterval(method, "reset current polling interval to", *poll.reset);
  if (poll.due) {
    if (LogEnabled(kLogDebug)) {
      Quietly([&] {
        LogDebug("RouterTableEntry::readyForTimedPoll(): waited %u seconds for poll of %s\n",
                 poll.waited, Shown(Name()).c_str());
      });
    }
    LogInterval(method, "set next polling interval to", poll.next);
  }
  return poll.due;
}

bool RouterTableEntry::readyForNotifiedPoll() {
  {
    WriteGuard guard(lock_);
    if (!guard || logonState_ != kLoggedOn || !supplier_.Notify()) return false;
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
  claim.acquired = guard && logonState_ == kLoggedOn && supplier_.Claim(claim.notified);
  return claim;
}

void RouterTableEntry::successfulGet(LogonGeneration generation) {
  Visitors turnedAway;
  bool again = false;
  bool current = false;
  {
    WriteGuard guard(lock_);
    if (!guard) return;
    turnedAway = supplier_.Leave();
    current = generation == generation_;
    if (current) again = supplier_.PollSucceeded(Platform::SteadyNow());
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
    turnedAway = supplier_.Leave();
    if (generation == generation_) {
      supplier_.PollFailed();
      return true;
    }
  }
  if (turnedAway.worker) host_.OfferToGetters(*this);
  return false;
}

}  // namespace MessageRouter
