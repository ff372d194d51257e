#pragma once

#include <omnithread.h>

#include <chrono>
#include <optional>

namespace Broker {

// While the object lives, the outgoing calls of the calling thread end by then, all together: a
// call that is under way raises CORBA::TIMEOUT. Afterwards calls have no limit again.
// Not nested. For any thread; calls on the process's own objects have no limit, and an attempt to
// connect ends at its own.
class CallTimeout {
 public:
  explicit CallTimeout(std::chrono::milliseconds time);
  // What is left of the calling thread's limit, as IsOver counts it; none if there is no limit.
  static std::optional<std::chrono::milliseconds> Left();
  // True if the calling thread has a limit and it has passed: there is no time to repeat a call.
  static bool IsOver();
  ~CallTimeout();
  CallTimeout(const CallTimeout&) = delete;
  CallTimeout& operator=(const CallTimeout&) = delete;

 private:
  // The ORB keeps the limit with its own record of the thread, which others don't have.
  omni_thread::ensure_self record_;
};

}  // namespace Broker
