#include "delivery/RouterThread.h"

#include "envelope/MessageIdGenerator.h"

namespace MessageRouter {

RouterThread::RouterThread(Routing& routing) : routing_(routing) {}

RouterThread::~RouterThread() {
  Stop();
}

void RouterThread::Process() {
  const StopTest stopping = [this] { return IsTerminated(); };
  const MessageIdGenerator::Preference preferred;
  while (!stopping()) routing_.RouteNext(0, 100, stopping);
}

}  // namespace MessageRouter
