#include "platform/Clock.h"

#include <time.h>

#include <atomic>

namespace Platform {
namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t kNanosecondsPerMicrosecond = 1'000;

class SystemClock : public Clock {
 public:
  std::int64_t WallSeconds() const override { return WallMicroseconds() / kMicrosecondsPerSecond; }

  std::int64_t WallMicroseconds() const override {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * kMicrosecondsPerSecond + now.tv_nsec / kNanosecondsPerMicrosecond;
  }

  SteadyTime SteadyNow() const override { return std::chrono::steady_clock::now(); }
};

// Never destroyed: the time is asked for until the very end of the process.
SystemClock& System() {
  static SystemClock& clock = *new SystemClock;
  return clock;
}

std::atomic<Clock*> replacement{nullptr};

}  // namespace

Clock& Clock::Instance() {
  Clock* const clock = replacement.load(std::memory_order_acquire);
  return clock != nullptr ? *clock : System();
}

void Clock::Replace(Clock* clock) {
  replacement.store(clock, std::memory_order_release);
}

}  // namespace Platform
