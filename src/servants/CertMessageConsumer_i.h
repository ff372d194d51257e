#pragma once

#include <BrelixMessaging.h>

#include <string>
#include <utility>

namespace RouterServants {

// Where a peer without a certificate hands in its certification requests. Not available in this
// version: every operation raises Rejected.
// Threads: any.
class CertMessageConsumer_i : public POA_BrelixMessaging::MessageConsumer {
 public:
  // `name` is what the peer calls itself.
  explicit CertMessageConsumer_i(std::string name) : name_(std::move(name)) {}

  BrelixMessaging::MessageId SendMessage(const BrelixMessaging::Message& message) override;
  void Heartbeat() override;
  CORBA::Boolean Cancel(const char* originator, BrelixMessaging::MessageId message_id) override;

 private:
  const std::string name_;
};

}  // namespace RouterServants
