#include "parent/HeartbeatThread.h"

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"

namespace MessageRouter {

using ThreadHelper::Guard;

HeartbeatThread::HeartbeatThread(RouterTable& table) : table_(table) {}

HeartbeatThread::~HeartbeatThread() {
  Stop();
}

void HeartbeatThread::Process() {
  finished_ = false;
  succeeded_ = false;
  succeeded_ = CallParent();
  // Kept, not only signalled: the waiter may come later than the answer.
  finished_ = true;
  Signal();
}

bool HeartbeatThread::CallParent() {
  const RouterTableEntry* const parent = table_.Parent();
  if (parent == nullptr) return false;
  const RouterTableEntry::PeerReferences references = parent->References();
  BrelixMessaging::RouterConsumer_ptr consumer = references.routerConsumer.in();
  if (CORBA::is_nil(consumer)) return false;
  try {
    LogDebug("HeartbeatThread::Process(): Calling parent with heartbeat...");
    Broker::RepeatOnce([consumer] { consumer->Heartbeat(); });
    LogDebug("HeartbeatThread::Process(): Heartbeat to parent succeeded.");
    return true;
  } catch (const CORBA::Exception&) {
    LogDebug("HeartbeatThread::Process(): Heartbeat to parent failed.");
    return false;
  }
}

bool HeartbeatThread::WaitForEnd(std::chrono::microseconds limit) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + limit;
  const Guard guard(mutex_);
  if (!guard) return false;
  while (!finished_) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    // A request to stop wakes this too; it is no answer.
    condition_.WaitFor(left);
  }
  return true;
}

bool HeartbeatThread::Succeeded() const {
  return succeeded_;
}

}  // namespace MessageRouter
