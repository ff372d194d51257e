#pragma once

#include <chrono>
#include <cstdint>

namespace Platform {

// The two times of the system. Wall time can be set back or forward by an administrator and is for
// what people and other machines see: time to live, stamps, certificates. Steady time only moves
// forward and is for durations, deadlines and waits.
// Threads: any.
class Clock {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  virtual ~Clock() = default;

  // Seconds since 1970, UTC.
  virtual std::int64_t WallSeconds() const = 0;
  // Microseconds since 1970, UTC.
  virtual std::int64_t WallMicroseconds() const = 0;
  virtual SteadyTime SteadyNow() const = 0;

  // The clock of the process: the system's, unless a test has put its own in place.
  static Clock& Instance();
  // The caller keeps ownership; null brings the system's clock back.
  static void Replace(Clock* clock);
};

// That of the process's clock.
inline Clock::SteadyTime SteadyNow() {
  return Clock::Instance().SteadyNow();
}

}  // namespace Platform
