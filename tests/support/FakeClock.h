#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/Clock.h"

namespace TestSupport {

// The clock of the process while it lives; both times stand still until they are moved.
// Threads: any.
class FakeClock : public Platform::Clock {
 public:
  static constexpr std::int64_t kDefaultWall = 1'500'000'000;

  explicit FakeClock(std::int64_t wallSeconds = kDefaultWall);
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  std::int64_t WallSeconds() const override;
  std::int64_t WallMicroseconds() const override;
  SteadyTime SteadyNow() const override;

  void SetWall(std::int64_t seconds);
  // An administrator sets the time; steady time stays.
  void AdvanceWall(std::int64_t seconds);
  // Time passes: both move.
  void Advance(std::chrono::milliseconds time);

 private:
  std::atomic<std::int64_t> wallMicroseconds_;
  std::atomic<std::int64_t> steadyMicroseconds_;
};

}  // namespace TestSupport
