#include "routing/SupplierSide.h"

#include <ace/OS_NS_stdlib.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace MessageRouter {
namespace {

using std::chrono::seconds;

constexpr std::uint32_t kRandomMaximum = 32767;

// The spread is meant for numbers of 15 bits; the high half of what comes here is the better one.
std::uint32_t NextRandom(std::uint32_t& seed) {
  return (static_cast<std::uint32_t>(ACE_OS::rand_r(&seed)) >> 16) & kRandomMaximum;
}

}  // namespace

std::uint32_t SupplierSide::Randomised(std::uint32_t interval, bool randomise) {
  if (!randomise || interval == 0) return interval;
  interval = std::min(interval, kRandomMaximum);
  return NextRandom(randomSeed_) / (kRandomMaximum / interval) + interval / 2;
}

std::uint32_t SupplierSide::Interval(const Thresholds& thresholds) {
  return Randomised(
      expectedResponses_ != 0 ? thresholds.getterShortInterval : thresholds.getterInterval,
      thresholds.randomizeGetterInterval);
}

std::uint32_t SupplierSide::BeginPolling(const Thresholds& thresholds, Time now) {
  state_ = kPollWaiting;
  interval_ = Interval(thresholds);
  if (expectedResponses_ != 0) shortPollDeadline_ = now + seconds(thresholds.getterInterval);
  return interval_;
}

void SupplierSide::Reset() {
  state_ = kNoSupplier;
  notifiedWhilePolled_ = false;
}

void SupplierSide::Clear() {
  Reset();
  lastGet_.reset();
  shortPollDeadline_ = {};
  interval_ = 0;
  expectedResponses_ = 0;
}

std::optional<std::uint32_t> SupplierSide::ExpectResponse(bool inSession,
                                                          const Thresholds& thresholds, Time now) {
  const bool first = expectedResponses_++ == 0;
  shortPollDeadline_ = now + seconds(thresholds.getterInterval);
  if (!first || !inSession) return std::nullopt;
  return interval_ = Interval(thresholds);
}

std::optional<std::uint32_t> SupplierSide::EndResponse(bool inSession,
                                                       const Thresholds& thresholds) {
  if (expectedResponses_ == 0) return std::nullopt;
  const bool last = --expectedResponses_ == 0;
  if (!last || !inSession) return std::nullopt;
  return interval_ = Interval(thresholds);
}

SupplierSide::TimedPoll SupplierSide::CheckTime(const Thresholds& thresholds, Time now) {
  TimedPoll poll;
  if (state_ != kPollWaiting) return poll;
  if (expectedResponses_ != 0 && now >= shortPollDeadline_) {
    expectedResponses_ = 0;
    poll.reset = interval_ = Interval(thresholds);
  }
  poll.due = !lastGet_ || now - *lastGet_ >= seconds(interval_);
  if (!poll.due) return poll;
  state_ = kPollDue;
  poll.waited = interval_;
  poll.next = interval_ = Interval(thresholds);
  return poll;
}

bool SupplierSide::Notify() {
  // The visit may have seen the end of the peer's queue already.
  if (state_ == kPollRunning) notifiedWhilePolled_ = true;
  if (state_ != kPollWaiting) return false;
  state_ = kPollNotified;
  return true;
}

bool SupplierSide::Claim(bool& notified) {
  notified = state_ == kPollNotified;
  if (!notified && state_ != kPollDue) return false;
  if (!visitors_.Enter(&Visitors::worker)) return false;
  state_ = kPollRunning;
  notifiedWhilePolled_ = false;
  return true;
}

bool SupplierSide::PollSucceeded(Time now) {
  state_ = kPollWaiting;
  lastGet_ = now;
  return std::exchange(notifiedWhilePolled_, false);
}

}  // namespace MessageRouter
