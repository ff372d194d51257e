#include "envelope/TimeToLive.h"

#include <algorithm>

#include "platform/Clock.h"

namespace MessageRouter {

TimeToLive TimeToLive::Stated(std::int64_t seconds) {
  const std::int64_t now = Platform::Clock::Instance().WallSeconds();
  if (seconds == 0 || seconds >= now) return TimeToLive(seconds);
  // However far back a negative one lies, it is neither "never" nor a time before 1970.
  return TimeToLive(std::max<std::int64_t>(seconds + now, 1));
}

}  // namespace MessageRouter
