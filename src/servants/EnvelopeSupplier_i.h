#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// Where a peer that pulls fetches the envelopes that wait for it. An envelope stays in the queue,
// and the same one is supplied again, until it is acknowledged.
// Threads: any. The caller's certificate says for whom it acts.
class EnvelopeSupplier_i : public POA_BrelixMessaging::RouterSupplier {
 public:
  // For a router, originators go out with this router's name in front, and come back so.
  explicit EnvelopeSupplier_i(bool isRouterSupplier) : isRouterSupplier_(isRouterSupplier) {}

  // The caller owns the result. A caller that is not logged on gets Rejected. An envelope whose
  // stored data is broken leaves the queue.
  BrelixMessaging::Envelope* GetEnvelope() override;
  void AcknowledgeEnvelope(const char* originator, BrelixMessaging::MessageId message_id) override;
  // Returns normally for every caller.
  void Heartbeat() override;

 private:
  void Acknowledge(const char* originator, BrelixMessaging::MessageId messageId);

  const bool isRouterSupplier_;
};

}  // namespace RouterServants
