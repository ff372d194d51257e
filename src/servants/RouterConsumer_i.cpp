#include "servants/RouterConsumer_i.h"

#include <string>
#include <utility>

#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

void RouterConsumer_i::SendEnvelope(const BrelixMessaging::Envelope& wire) {
  Operation("RouterConsumer::SendEnvelope", [&] {
    const Caller caller = Caller::LoggedOn();
    // A neighbour states who sent the message and with what certificate. A client that has guessed
    // the reference of a neighbour's object must not: it would gain any role.
    if (!caller.isRouter) throw BrelixMessaging::Rejected();
    caller.entry.TouchLastPull(caller.name);
    MessageRouter::Envelope envelope;
    envelope.CreateFromRouter(wire, caller.entry.IsParent());
    caller.routing.QueueForRouting(std::move(envelope));
  });
}

void RouterConsumer_i::Heartbeat() {
  OpenOperation("RouterConsumer::Heartbeat", [] {
    const std::string name = CallerName();
    MessageRouter::RouterTableEntry* entry = FindEntry(name);
    if (entry != nullptr) entry->TouchLastPull(name);
  });
}

}  // namespace RouterServants
