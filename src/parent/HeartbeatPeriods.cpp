#include "parent/HeartbeatPeriods.h"

#include <algorithm>
#include <functional>

namespace MessageRouter {
namespace {

constexpr unsigned kLargestRandom = 32767;
// Longer than any router runs, and far from where the clock's numbers end.
constexpr double kLongestPeriod = 3.0e9;  // seconds

}  // namespace

HeartbeatPeriods::HeartbeatPeriods(const std::string& name, std::int64_t wallSeconds)
    : random_(static_cast<std::minstd_rand::result_type>(std::hash<std::string>()(name) +
                                                         static_cast<std::size_t>(wallSeconds))) {}

unsigned HeartbeatPeriods::Draw() {
  return std::uniform_int_distribution<unsigned>(0, kLargestRandom)(random_);
}

std::chrono::seconds HeartbeatPeriods::Next(std::uint32_t baseMinutes) {
  const double period = baseMinutes * 60.0 * (1.0 + Draw() % 100 / 100.0);
  return std::chrono::seconds(static_cast<std::int64_t>(std::min(period, kLongestPeriod)));
}

}  // namespace MessageRouter
