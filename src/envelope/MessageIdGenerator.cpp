#include "envelope/MessageIdGenerator.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "broker/Gate.h"
#include "platform/Clock.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::microseconds kStep{100000};

// Of the ids of a second.
constexpr std::uint32_t kMostKept = 96;
// What is kept beyond the need of a second in which it was not met.
constexpr std::uint32_t kMore = 32;

thread_local bool isPreferred = false;

std::int64_t Now() {
  return Platform::Clock::Instance().WallSeconds();
}

}  // namespace

MessageIdGenerator::Preference::Preference() {
  isPreferred = true;
}

MessageIdGenerator::Preference::~Preference() {
  isPreferred = false;
}

bool MessageIdGenerator::Preference::IsThisThreads() {
  return isPreferred;
}

MessageIdGenerator& MessageIdGenerator::Instance() {
  static MessageIdGenerator* const instance = new MessageIdGenerator;
  return *instance;
}

MessageIdGenerator::MessageIdGenerator() : condition_(mutex_), lastTime_(Now()) {}

std::uint32_t MessageIdGenerator::NextMessageId() {
  // A client that sends too fast waits without a place at the gate, or a few of them would keep all
  // other operations out. It comes back after the mutex is free: who has a place may want the
  // mutex.
  std::optional<Broker::Gate::Leave> leave;
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return 0;
  std::int64_t now = Now();
  // Nothing signals the condition: the wait is a sleep that gives up the mutex.
  while (now == lastTime_ && UsedUp()) {
    if (!leave) leave.emplace();
    if (isPreferred) lacked_ = true;
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
  if (isPreferred) ++had_;
  return sequence_ << kShift | (static_cast<std::uint32_t>(now) & kTimeMask);
}

bool MessageIdGenerator::UsedUp() const {
  const std::uint32_t kept = !isPreferred && kept_ > had_ ? kept_ - had_ : 0;
  return sequence_ + kept >= kSequenceLimit;
}

// What was not used is given back little by little: who asks fast comes again.
void MessageIdGenerator::BeginSecond(std::int64_t now) {
  if (now != lastTime_ + 1) {
    kept_ = 0;
  } else if (lacked_) {
    kept_ = std::min(std::max(kept_, 2 * had_ + kMore), kMostKept);
  } else {
    kept_ = std::max(kept_ * 7 / 8, std::min(kept_, had_));
  }
  had_ = 0;
  lacked_ = false;
  lastTime_ = now;
  sequence_ = 0;
}

}  // namespace MessageRouter
