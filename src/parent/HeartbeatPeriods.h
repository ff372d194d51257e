#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <string>

namespace MessageRouter {

// Draws how long a router waits until its next heartbeat: between one and two base periods, and not
// the same for routers that are started together.
// Threads: one at a time.
class HeartbeatPeriods {
 public:
  // `wallSeconds`: the time of the start.
  HeartbeatPeriods(const std::string& name, std::int64_t wallSeconds);

  // 0 to 32767.
  unsigned Draw();
  // Whole seconds, and never more than clocks can hold. 0 minutes give 0.
  std::chrono::seconds Next(std::uint32_t baseMinutes);

 private:
  std::minstd_rand random_;
};

}  // namespace MessageRouter
