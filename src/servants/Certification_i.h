#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// The door for peers that have no certificate yet. Not available in this version: nobody is logged
// on for certification, every operation raises Rejected.
// Threads: any; no state.
class Certification_i : public POA_BrelixMessaging::Certification {
 public:
  void CertLogon(const char* name, BrelixMessaging::MessageConsumer_out message_consumer,
                 BrelixMessaging::EnvelopeSupplier_out supplier) override;
  void CertLogoff(const char* name) override;
};

}  // namespace RouterServants
