#pragma once

#include <chrono>

namespace Broker {

// While the object lives, the outgoing calls of the calling thread end by then, all together: a
// call that is under way raises CORBA::TIMEOUT. Afterwards calls have no limit again.
// Not nested. Without effect on threads that the ORB doesn't know (started neither by it nor by
// omnithread).
class CallTimeout {
 public:
  explicit CallTimeout(std::chrono::milliseconds time);
  ~CallTimeout();
  CallTimeout(const CallTimeout&) = delete;
  CallTimeout& operator=(const CallTimeout&) = delete;
};

}  // namespace Broker
