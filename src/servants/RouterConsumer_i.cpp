#include "servants/RouterConsumer_i.h"

#include <utility>

#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

void RouterConsumer_i::SendEnvelope(const BrelixMessaging::Envelope& wire) {
  Operation("RouterConsumer::SendEnvelope", [&] {
    const Caller caller = Caller::LoggedOn();
    caller.entry.TouchLastPull();
    MessageRouter::Envelope envelope;
    envelope.CreateFromRouter(wire, caller.entry.IsParent());
    caller.routing.QueueForRouting(std::move(envelope));
  });
}

void RouterConsumer_i::Heartbeat() {
  OpenOperation("RouterConsumer::Heartbeat", [] {
    MessageRouter::RouterTableEntry* entry = FindEntry(CallerName());
    if (entry != nullptr) entry->TouchLastPull();
  });
}

}  // namespace RouterServants
