#include "support/FakeClock.h"

namespace TestSupport {

namespace {
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
}

// Steady time starts a day in, so that a deadline of zero lies in the past, as on a real machine.
FakeClock::FakeClock(std::int64_t wallSeconds)
    : wallMicroseconds_(wallSeconds * kMicrosecondsPerSecond),
      steadyMicroseconds_(86'400 * kMicrosecondsPerSecond) {
  Platform::Clock::Replace(this);
}

FakeClock::~FakeClock() {
  Platform::Clock::Replace(nullptr);
}

std::int64_t FakeClock::WallSeconds() const {
  return wallMicroseconds_ / kMicrosecondsPerSecond;
}

std::int64_t FakeClock::WallMicroseconds() const {
  return wallMicroseconds_;
}

Platform::Clock::SteadyTime FakeClock::SteadyNow() const {
  return SteadyTime(std::chrono::duration_cast<SteadyTime::duration>(
      std::chrono::microseconds(steadyMicroseconds_)));
}

void FakeClock::SetWall(std::int64_t seconds) {
  wallMicroseconds_ = seconds * kMicrosecondsPerSecond;
}

void FakeClock::AdvanceWall(std::int64_t seconds) {
  wallMicroseconds_ += seconds * kMicrosecondsPerSecond;
}

void FakeClock::Advance(std::chrono::milliseconds time) {
  const std::int64_t microseconds = std::chrono::microseconds(time).count();
  wallMicroseconds_ += microseconds;
  steadyMicroseconds_ += microseconds;
}

}  // namespace TestSupport
