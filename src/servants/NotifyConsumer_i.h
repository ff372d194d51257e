#pragma once

#include <BrelixMessaging.h>

#include <functional>

namespace RouterServants {

// How a peer tells this router that envelopes wait there, and learns from which priority on that is
// worth telling.
// Threads: any; no state. Both operations return normally whoever calls.
class NotifyConsumer_i : public POA_BrelixMessaging::NotifyConsumer {
 public:
  // Queues a poll of the caller and returns.
  void Notify() override;
  CORBA::Long NotificationThreshold() override;
};

// Told of each NotificationThreshold call: the caller has just shown that it can reach this router.
// Runs on broker threads. Empty for none. Threads: any.
void SetThresholdCallObserver(std::function<void()> observer);

}  // namespace RouterServants
