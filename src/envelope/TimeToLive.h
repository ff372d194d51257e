#pragma once

#include <cstdint>

namespace MessageRouter {

// When an envelope expires.
class TimeToLive {
 public:
  // As the sender of a message states it: 0 is never, a number below the present time counts from
  // now on, any other is the time of the end. What a negative number yields has expired.
  static TimeToLive Stated(std::int64_t seconds);
  // The end that another envelope has (Envelope::Ttl), kept as it is even if it has passed.
  static TimeToLive Until(std::int64_t end) { return TimeToLive(end); }

  std::int64_t End() const { return end_; }  // seconds since 1970; 0 is never

 private:
  explicit TimeToLive(std::int64_t end) : end_(end) {}

  std::int64_t end_;
};

}  // namespace MessageRouter
