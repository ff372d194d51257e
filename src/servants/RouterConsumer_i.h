#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// Where a neighbouring router pushes its envelopes. When SendEnvelope returns, the envelope is this
// router's, on disk. An envelope that comes twice is stored twice.
// Threads: any; no state: the caller's certificate says for whom it acts.
class RouterConsumer_i : public POA_BrelixMessaging::RouterConsumer {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override;
  // Returns normally for a caller that is unknown or not logged on: the link itself works.
  void Heartbeat() override;
};

}  // namespace RouterServants
