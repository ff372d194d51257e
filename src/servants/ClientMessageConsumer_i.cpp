#include "servants/ClientMessageConsumer_i.h"

#include <cstdint>
#include <string>
#include <utility>

#include "envelope/Address.h"
#include "envelope/MessageType.h"
#include "security/CertificateContext.h"
#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

using MessageRouter::RouterTableEntry;

BrelixMessaging::MessageId ClientMessageConsumer_i::SendMessage(
    const BrelixMessaging::Message& message) {
  return Operation("ClientMessageConsumer::SendMessage", [&] {
    const Caller caller = Caller::LoggedOn();
    if (MessageRouter::IsSystemType(message.type.in())) throw BrelixMessaging::IllegalMessageType();
    MessageRouter::Envelope envelope;
    envelope.CreateFromClient(
        message, caller.name,
        MessageRouter::CertificateContext::instance().GetPeerCertificateText());
    const auto id = static_cast<BrelixMessaging::MessageId>(envelope.MessageId());
    caller.routing.QueueForRouting(std::move(envelope));
    return id;
  });
}

void ClientMessageConsumer_i::Heartbeat() {
  Operation("ClientMessageConsumer::Heartbeat", [] { Caller::LoggedOn(); });
}

CORBA::Boolean ClientMessageConsumer_i::Cancel(const char* originator,
                                               BrelixMessaging::MessageId message_id) {
  return Operation("ClientMessageConsumer::Cancel", [&] {
    const Caller caller = Caller::LoggedOn();
    // Envelopes are found by this name and the id: nobody withdraws another's message.
    const std::string sender = MessageRouter::QualifyWithRouter(caller.name);
    const auto id = static_cast<std::uint32_t>(message_id);
    if (caller.routing.CancelInRouteQueue(sender, id)) return true;

    MessageRouter::RouterTable& table = caller.routing.Table();
    RouterTableEntry* neighbour = table.Find(MessageRouter::FirstComponent(originator));
    if (neighbour == nullptr) neighbour = table.Parent();
    return neighbour != nullptr && neighbour->Cancel(sender, id);
  });
}

}  // namespace RouterServants
