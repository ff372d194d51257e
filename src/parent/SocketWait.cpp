#include "parent/SocketWait.h"

#include <ace/OS_NS_poll.h>
#include <ace/Time_Value.h>

#include <cerrno>

namespace MessageRouter {

int WaitForSocket(ACE_HANDLE socket, Readiness readiness, std::chrono::milliseconds time) {
  struct pollfd descriptor = {};
  descriptor.fd = socket;
  descriptor.events = readiness == Readiness::Read ? POLLIN : POLLOUT;
  const ACE_Time_Value limit(time.count() / 1000,
                             static_cast<suseconds_t>(time.count() % 1000 * 1000));
  const int ready = ACE_OS::poll(&descriptor, 1, &limit);
  // Whoever waits keeps its own deadline, and comes again.
  return ready == -1 && errno == EINTR ? 0 : ready;
}

}  // namespace MessageRouter
