#pragma once

#include <BrelixMessaging.h>

#include <cstdint>
#include <string>
#include <vector>

#include "envelope/Envelope.h"

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
  // The end of an envelope that has been supplied, under any of these originators.
  void Acknowledge(const std::string& originator, std::uint32_t messageId, bool mayBeQualified);
  // The end of one that can't be. False if it has been taken from the queue since.
  bool Discard(const MessageRouter::Envelope& broken);

  const bool isRouterSupplier_;
};

}  // namespace RouterServants
