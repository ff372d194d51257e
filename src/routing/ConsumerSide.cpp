#include "routing/ConsumerSide.h"

#include <algorithm>
#include <chrono>

namespace MessageRouter {

using std::chrono::seconds;

bool ConsumerSide::IsPassive(std::uint32_t state) {
  return state == kPushIdle || state == kPushBusy;
}

bool ConsumerSide::CountsPulls(std::uint32_t state) {
  return state == kNothingSent || state == kNoNotification || state == kNotified ||
         state == kNotifying;
}

void ConsumerSide::BeginNotified(std::int32_t threshold) {
  state_ = kNothingSent;
  threshold_ = threshold;
  nextNotification_.reset();
  notificationRetry_ = 0;
}

void ConsumerSide::Reset() {
  state_ = kNothingSent;
  lastPull_.reset();
}

void ConsumerSide::Clear() {
  Reset();
  threshold_ = 0;
  nextNotification_.reset();
  notificationRetry_ = 0;
}

bool ConsumerSide::ClaimForSending() {
  if (state_ != kPushIdle || !visitors_.Enter(&Visitors::worker)) return false;
  state_ = kPushBusy;
  return true;
}

bool ConsumerSide::SendFinished() {
  if (state_ != kPushBusy) return false;
  state_ = kPushIdle;
  return true;
}

// A threshold of 0 refuses nothing: one envelope of a negative priority, which stands at the exit,
// would keep the peer from hearing of all others.
bool ConsumerSide::IsWorthNotifying(std::int32_t priority) const {
  return threshold_ == 0 || priority >= threshold_;
}

bool ConsumerSide::ClaimForNotifying(std::optional<std::int32_t> priority) {
  if ((state_ == kNothingSent || state_ == kNotified) && priority && IsWorthNotifying(*priority)) {
    if (!visitors_.Enter(&Visitors::worker)) return false;
    state_ = kNotifying;
    return true;
  }
  if (state_ == kNotifyingPulledEmpty) state_ = kNotifyAgain;
  return false;
}

bool ConsumerSide::ClaimForRetry(const Thresholds& thresholds, Time now) {
  if (state_ != kNothingSent && state_ != kNoNotification) return false;
  if (nextNotification_ && now <= *nextNotification_) return false;
  if (!visitors_.Enter(&Visitors::threshold)) return false;
  const std::uint64_t wanted = notificationRetry_ == 0
                                   ? thresholds.notificationThresholdInitialRetrySecs
                                   : std::uint64_t{notificationRetry_} * 2;
  notificationRetry_ = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(wanted, thresholds.notificationThresholdMaxRetrySecs));
  nextNotification_ = now + seconds(notificationRetry_);
  state_ = kNotifying;
  return true;
}

bool ConsumerSide::IsNotifying() const {
  const std::uint32_t state = state_;
  return state == kNotifying || state == kNotifyingPulledEmpty || state == kNotifyAgain;
}

void ConsumerSide::NotificationAccepted(std::int32_t threshold, Time now) {
  if (!IsNotifying()) return;
  state_ = kNotified;
  threshold_ = threshold;
  TouchLastPull(now);
}

void ConsumerSide::NotificationFailed(const Thresholds& thresholds, Time now) {
  if (!IsNotifying()) return;
  StopNotifying(now);
  notificationRetry_ = thresholds.notificationThresholdInitialRetrySecs;
  nextNotification_ = now + seconds(notificationRetry_);
}

void ConsumerSide::RetryFailed(Time now) {
  if (IsNotifying()) StopNotifying(now);
}

// A pull during the call has made lastPull_ not applicable, and a router that is silent from here
// on must still time out. Where there was no pull, what was not applicable before stays so.
void ConsumerSide::StopNotifying(Time now) {
  const bool pulled = state_ != kNotifying;
  state_ = kNoNotification;
  if (pulled && !lastPull_) TouchLastPull(now);
}

bool ConsumerSide::NotificationFinished(Time now) {
  const bool again = state_ == kNotifyAgain;
  if (IsNotifying()) state_ = kNotified;
  // After the state: pulls don't count in the ones that a notification passes through.
  TouchLastPull(now);
  return again;
}

void ConsumerSide::PulledNothing() {
  if (state_ == kNotifying) state_ = kNotifyingPulledEmpty;
}

void ConsumerSide::TouchLastPull(Time now) {
  if (CountsPulls(state_)) {
    lastPull_ = now;
  } else {
    lastPull_.reset();
  }
}

bool ConsumerSide::PullTimedOut(std::uint32_t limitSeconds, Time now) const {
  return CountsPulls(state_) && lastPull_ && now - *lastPull_ > seconds(limitSeconds);
}

}  // namespace MessageRouter
