#include "broker/CallTimeout.h"

#include <omniORB4/CORBA.h>

namespace Broker {

CallTimeout::CallTimeout(std::chrono::milliseconds time) {
  const auto count = time.count();
  const omni_time_t relative(count / 1000, (count % 1000) * 1'000'000);
  omni_time_t deadline;
  omni_thread::get_time(deadline, relative);
  try {
    omniORB::setClientThreadCallDeadline(deadline);
  } catch (const CORBA::INITIALIZE&) {  // not a thread of the ORB's: its calls stay without a limit
  }
}

CallTimeout::~CallTimeout() {
  try {
    omniORB::setClientThreadCallTimeout(0);
  } catch (const CORBA::INITIALIZE&) {
  }
}

}  // namespace Broker
