#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/Clock.h"
#include "routing/Thresholds.h"
#include "routing/Visitors.h"

namespace MessageRouter {

// A peer as a supplier: whether this router polls it, when the next poll is due, and whether one
// runs. While answers are expected of the peer it is polled at the short interval. Intervals are in
// seconds, spread at random where the thresholds ask for it.
// Threads: no lock of its own; its owner guards it. What State() refers to may be read by anybody.
class SupplierSide {
 public:
  using Time = Platform::Clock::SteadyTime;

  enum States : std::uint32_t {
    kNoSupplier = 0,
    kActiveSupplier = 1,
    kPollWaiting = 2,
    kPollNotified = 3,
    kPollDue = 4,
    kPollRunning = 5,
    kPollFailed = 6,
  };
  struct TimedPoll {
    bool due = false;
    std::optional<std::uint32_t> reset;  // the answers did not come: the interval from now on
    std::uint32_t waited = 0;            // where due, as is the next
    std::uint32_t next = 0;
  };

  explicit SupplierSide(std::uint32_t randomSeed) : randomSeed_(randomSeed) {}

  const std::atomic<std::uint32_t>& State() const { return state_; }

  // A session begins: with a peer that pushes, or with one that is polled. The latter returns the
  // interval.
  void BeginPushing() { state_ = kActiveSupplier; }
  std::uint32_t BeginPolling(const Thresholds& thresholds, Time now);
  // The session is over. What the peer owes, and when it was last polled, outlasts it.
  void Reset();
  // Nothing of the peer is left.
  void Clear();

  // One more or one less answer of the peer is expected. Both return the new interval where this
  // changes that of a session.
  std::optional<std::uint32_t> ExpectResponse(bool inSession, const Thresholds& thresholds,
                                              Time now);
  std::optional<std::uint32_t> EndResponse(bool inSession, const Thresholds& thresholds);

  // While waiting; the poll that it finds due is the getters' from then on.
  TimedPoll CheckTime(const Thresholds& thresholds, Time now);
  // The peer asks to be polled. False if it does not wait for that. What comes while a poll runs is
  // told by that one's success.
  bool Notify();

  // For a getter: false unless a poll is due or asked for, and nobody else is at it. `notified`
  // tells which, in any case.
  bool Claim(bool& notified);
  Visitors Leave() { return visitors_.Leave(); }
  bool Visited() const { return visitors_.inside; }
  // The outcome of a claim, if its session stands. Success returns whether the peer asked for
  // another poll meanwhile.
  bool PollSucceeded(Time now);
  void PollFailed() { state_ = kPollFailed; }

 private:
  std::uint32_t Interval(const Thresholds& thresholds);
  std::uint32_t Randomised(std::uint32_t interval, bool randomise);

  std::atomic<std::uint32_t> state_{kNoSupplier};
  Visitors visitors_;
  std::optional<Time> lastGet_;  // nothing: a poll is due at once
  Time shortPollDeadline_{};
  std::uint32_t interval_ = 0;
  std::uint32_t expectedResponses_ = 0;
  bool notifiedWhilePolled_ = false;
  std::uint32_t randomSeed_;
};

}  // namespace MessageRouter
