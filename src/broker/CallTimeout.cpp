#include "broker/CallTimeout.h"

#include <omniORB4/CORBA.h>

#include <optional>

namespace Broker {
namespace {

using Clock = std::chrono::steady_clock;

// The ORB looks at another clock, which must not be just a little slower.
constexpr std::chrono::milliseconds kSlack{50};

thread_local std::optional<Clock::time_point> end;

}  // namespace

CallTimeout::CallTimeout(std::chrono::milliseconds time) {
  const Clock::time_point begin = Clock::now();
  const auto count = time.count();
  const omni_time_t relative(count / 1000, (count % 1000) * 1'000'000);
  omni_time_t deadline;
  omni_thread::get_time(deadline, relative);
  omniORB::setClientThreadCallDeadline(deadline);
  // Last: where the ORB throws, nothing takes it back.
  end = begin + time - kSlack;
}

std::optional<std::chrono::milliseconds> CallTimeout::Left() {
  if (!end) return std::nullopt;
  return std::chrono::floor<std::chrono::milliseconds>(*end - Clock::now());
}

bool CallTimeout::IsOver() {
  return end && Clock::now() >= *end;
}

CallTimeout::~CallTimeout() {
  end.reset();
  omniORB::setClientThreadCallTimeout(0);
}

}  // namespace Broker
