#include "envelope/MessageIdGenerator.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "broker/Gate.h"
#include "platform/Clock.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::microseconds kStep{100000};

// What the router is given beyond its last need where that was not met.
constexpr std::uint32_t kMore = 8;
constexpr std::uint32_t kMostKept = 96;

std::int64_t Now() {
  return Platform::Clock::Instance().WallSeconds();
}

}  // namespace

MessageIdGenerator& MessageIdGenerator::Instance() {
  static MessageIdGenerator* const instance = new MessageIdGenerator;
  return *instance;
}

MessageIdGenerator::MessageIdGenerator() : condition_(mutex_), lastTime_(Now()) {}

std::uint32_t MessageIdGenerator::NextMessageId(Origin origin) {
  // A client that sends too fast waits without a place at the gate, or a few of them would keep all
  // other operations out. It comes back after the mutex is free: who has a place may want the
  // mutex.
  std::optional<Broker::Gate::Leave> leave;
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return 0;
  std::int64_t now = Now();
  // Nothing signals the condition: the wait is a sleep that gives up the mutex.
  while (now == lastTime_ && UsedUp(origin)) {
    if (!leave) leave.emplace();
    if (origin == Origin::kRouter) lacked_ = true;
    condition_.WaitFor(kStep);
    now = Now();
  }
  // A waiter finds what another one left while the mutex was given up: the time that counts is the
  // one that stands now.
  if (now != lastTime_) {
    BeginSecond(now);
  } else {
    ++sequence_;
  }
  if (origin == Origin::kRouter) ++had_;
  return sequence_ << kShift | (static_cast<std::uint32_t>(now) & kTimeMask);
}

bool MessageIdGenerator::UsedUp(Origin origin) const {
  const std::uint32_t kept = origin == Origin::kClient && kept_ > had_ ? kept_ - had_ : 0;
  return sequence_ + kept >= kSequenceLimit;
}

void MessageIdGenerator::BeginSecond(std::int64_t now) {
  const std::uint32_t needed = lacked_ ? 2 * had_ + kMore : had_;
  kept_ = now == lastTime_ + 1 ? std::min(std::max(needed, kept_ * 7 / 8), kMostKept) : 0;
  had_ = 0;
  lacked_ = false;
  lastTime_ = now;
  sequence_ = 0;
}

}  // namespace MessageRouter
