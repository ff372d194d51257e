#pragma once

#include <BrelixMessaging.h>

#include <string>
#include <utility>

namespace RouterServants {

// Where a peer without a certificate collects its certification messages. Not available in this
// version: every operation raises Rejected.
// Threads: any.
class CertEnvelopeSupplier_i : public POA_BrelixMessaging::EnvelopeSupplier {
 public:
  // `name` is what the peer calls itself.
  explicit CertEnvelopeSupplier_i(std::string name) : name_(std::move(name)) {}

  BrelixMessaging::Envelope* GetEnvelope() override;
  void AcknowledgeEnvelope(const char* originator, BrelixMessaging::MessageId message_id) override;

 private:
  const std::string name_;
};

}  // namespace RouterServants
