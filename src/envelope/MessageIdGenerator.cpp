#include "envelope/MessageIdGenerator.h"

#include <chrono>
#include <optional>

#include "broker/Gate.h"
#include "platform/Clock.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::microseconds kStep{100000};

std::int64_t Now() {
  return Platform::Clock::Instance().WallSeconds();
}

}  // namespace

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
  while (now == lastTime_ && sequence_ >= kSequenceLimit) {
    if (!leave) leave.emplace();
    condition_.WaitFor(kStep);
    now = Now();
  }
  // A waiter finds what another one left while the mutex was given up: the time that counts is the
  // one that stands now.
  if (now != lastTime_) {
    lastTime_ = now;
    sequence_ = 0;
  } else {
    ++sequence_;
  }
  return sequence_ << kShift | (static_cast<std::uint32_t>(now) & kTimeMask);
}

}  // namespace MessageRouter
