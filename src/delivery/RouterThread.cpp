#include "delivery/RouterThread.h"

namespace MessageRouter {

RouterThread::RouterThread(Routing& routing) : routing_(routing) {}

RouterThread::~RouterThread() {
  Stop();
}

void RouterThread::Process() {
  while (!IsTerminated()) routing_.RouteNext(0, 100);
}

}  // namespace MessageRouter
