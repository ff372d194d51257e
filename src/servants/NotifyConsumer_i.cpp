#include "servants/NotifyConsumer_i.h"

#include <string>
#include <utility>

#include "config/Configuration.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "servants/Caller.h"
#include "servants/Frame.h"
#include "threads/Mutex.h"

namespace RouterServants {
namespace {

// Who is told of threshold calls. A leaf lock: the observer runs without it.
class Observer {
 public:
  void Set(std::function<void()> observer) {
    ThreadHelper::Guard guard(mutex_);
    if (guard) observer_ = std::move(observer);
  }
  void Tell() {
    std::function<void()> observer;
    {
      ThreadHelper::Guard guard(mutex_);
      if (guard) observer = observer_;
    }
    if (observer) observer();
  }

 private:
  ThreadHelper::Mutex mutex_;
  std::function<void()> observer_ GUARDED_BY(mutex_);
};

// Never destroyed: requests may run until the process ends.
Observer& ThresholdCallObserver() {
  static auto* const observer = new Observer;
  return *observer;
}

}  // namespace

void NotifyConsumer_i::Notify() {
  OpenOperation("NotifyConsumer::Notify", [] {
    MessageRouter::Routing* routing = MessageRouter::Cycle::Current();
    const auto name = CallerNameIfAny();
    if (routing == nullptr || !name) return;
    MessageRouter::RouterTableEntry* entry = routing->Table().Find(*name);
    // A stranger's notification is dropped without a word. One that comes too late for an entry
    // that has just become another peer's means a poll of that one, which does no harm.
    if (entry == nullptr || !entry->StandingOf(*name)) return;
    routing->Host().NotifiedPoll(*entry);
    // The poll is under way, whatever becomes of the line.
    MessageRouter::Quietly([&] {
      MessageRouter::LogDebug("NotifyConsumer_i::Notify() notified by %s\n",
                              MessageRouter::Shown(*name).c_str());
    });
  });
}

CORBA::Long NotifyConsumer_i::NotificationThreshold() {
  return OpenOperation("NotifyConsumer::NotificationThreshold", [] {
    ThresholdCallObserver().Tell();
    return static_cast<CORBA::Long>(MessageRouter::GetConfigInt("NotifyThreshold", 0));
  });
}

void SetThresholdCallObserver(std::function<void()> observer) {
  ThresholdCallObserver().Set(std::move(observer));
}

}  // namespace RouterServants
