#include "servants/CertMessageConsumer_i.h"

#include "servants/Frame.h"

namespace RouterServants {

BrelixMessaging::MessageId CertMessageConsumer_i::SendMessage(const BrelixMessaging::Message&) {
  return Operation("CertMessageConsumer::SendMessage",
                   []() -> BrelixMessaging::MessageId { throw BrelixMessaging::Rejected(); });
}

void CertMessageConsumer_i::Heartbeat() {
  Operation("CertMessageConsumer::Heartbeat", [] { throw BrelixMessaging::Rejected(); });
}

CORBA::Boolean CertMessageConsumer_i::Cancel(const char*, BrelixMessaging::MessageId) {
  const Broker::Gate::Pass pass;
  MessageRouter::LogInfo("CertMessageConsumer::Cancel() called. Rejecting .... \n");
  throw BrelixMessaging::Rejected();
}

}  // namespace RouterServants
