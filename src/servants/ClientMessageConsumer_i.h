#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// Where a logged-on client hands in its messages. When SendMessage returns, the message is this
// router's, on disk. When it throws, nothing is left behind.
// Threads: any; no state: the caller's certificate says for whom it acts.
class ClientMessageConsumer_i : public POA_BrelixMessaging::MessageConsumer {
 public:
  BrelixMessaging::MessageId SendMessage(const BrelixMessaging::Message& message) override;
  void Heartbeat() override;
  // Withdraws a message of the caller's own that has not left this router. `originator` is an
  // address; its first component names the neighbour in whose queue the message may wait.
  CORBA::Boolean Cancel(const char* originator, BrelixMessaging::MessageId message_id) override;
};

}  // namespace RouterServants
