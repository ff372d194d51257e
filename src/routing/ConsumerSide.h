#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/Clock.h"
#include "routing/Thresholds.h"
#include "routing/Visitors.h"

namespace MessageRouter {

// A peer as a consumer: whether it is pushed to, or fetches for itself and is told that something
// waits; and when it fetched last.
// Threads: no lock of its own; its owner guards it. What State() refers to may be read by anybody.
class ConsumerSide {
 public:
  using Time = Platform::Clock::SteadyTime;

  enum States : std::uint32_t {
    kNothingSent = 0,           // active, with a notifier
    kNoNotification = 1,        // active, no notification to send
    kNotified = 2,              // active, expected to pull
    kPushIdle = 3,              // passive
    kPushBusy = 4,              // passive, a sender is at work
    kPushFailed = 5,            // passive
    kNotifying = 6,             // a notification is being sent
    kNotifyingPulledEmpty = 7,  // the peer pulled and found nothing meanwhile
    kNotifyAgain = 8,           // as 7, and another notification is wanted
  };

  const std::atomic<std::uint32_t>& State() const { return state_; }
  static bool IsPassive(std::uint32_t state);
  // Whether it matters in this state when the peer fetched last.
  static bool CountsPulls(std::uint32_t state);

  // A session begins.
  void BeginPushed() { state_ = kPushIdle; }
  void BeginNotified(std::int32_t threshold);
  void BeginSilent() { state_ = kNoNotification; }
  // The session is over.
  void Reset();
  // Nothing of the peer is left.
  void Clear();

  // For a sender: false unless nobody is at work here. A claim is left once, however it ends.
  bool ClaimForSending();
  Visitors Leave() { return visitors_.Leave(); }
  bool Visited() const { return visitors_.inside; }
  // True if the sender was still at work, as far as this knows.
  bool SendFinished();
  void SendFailed() { state_ = kPushFailed; }

  // For a sender too: `priority` is that of the envelope that waits, where the peer can be told of
  // it. While a notification runs whose announced envelopes the peer has fetched already, another
  // one is noted.
  bool ClaimForNotifying(std::optional<std::int32_t> priority);
  // For a threshold worker. The pause until the next try doubles with each.
  bool ClaimForRetry(const Thresholds& thresholds, Time now);

  // The outcome of a notification, if its session stands; no others change anything.
  void NotificationAccepted(std::int32_t threshold, Time now);
  void NotificationFailed(const Thresholds& thresholds, Time now);
  // The failed call of a threshold worker: the back-off stays as it is.
  void RetryFailed(Time now);
  // True: look again at once.
  bool NotificationFinished(Time now);

  void PulledNothing();
  void TouchLastPull(Time now);
  void ForgetLastPull() { lastPull_.reset(); }
  bool PullTimedOut(std::uint32_t limitSeconds, Time now) const;

 private:
  bool IsWorthNotifying(std::int32_t priority) const;
  bool IsNotifying() const;
  void StopNotifying(Time now);

  std::atomic<std::uint32_t> state_{kNothingSent};
  Visitors visitors_;
  std::int32_t threshold_ = 0;
  std::optional<Time> nextNotification_;  // nothing: at once
  std::uint32_t notificationRetry_ = 0;   // seconds; 0 before a failure
  std::optional<Time> lastPull_;          // nothing: not applicable
};

}  // namespace MessageRouter
