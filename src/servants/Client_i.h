#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// The door for clients. The caller's certificate says who it is.
// Threads: any; no state.
class Client_i : public POA_BrelixMessaging::Client {
 public:
  void Register() override;
  void Unregister() override;
  // A consumer that doesn't answer a call back is dropped, and the client pulls.
  void Logon(BrelixMessaging::EnvelopeConsumer_ptr consumer,
             BrelixMessaging::NotifyConsumer_ptr notify,
             BrelixMessaging::MessageConsumer_out message_consumer,
             BrelixMessaging::EnvelopeSupplier_out supplier) override;
  // Without a consumer that answers there is no logon.
  void LogonPushPush(BrelixMessaging::EnvelopeConsumer_ptr consumer,
                     BrelixMessaging::MessageConsumer_out message_consumer) override;
  void LogonPushPull(BrelixMessaging::NotifyConsumer_ptr notify,
                     BrelixMessaging::MessageConsumer_out message_consumer,
                     BrelixMessaging::EnvelopeSupplier_out supplier) override;
  void Logoff() override;
};

}  // namespace RouterServants
