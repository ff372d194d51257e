#pragma once

#include "Behaviour.h"

// The objects that the peer offers to a router. Each operation first does what the Behaviour says.
namespace Peer {

class EnvelopeConsumerServant : public POA_BrelixMessaging::EnvelopeConsumer {
 public:
  explicit EnvelopeConsumerServant(Behaviour& behaviour) : behaviour_(behaviour) {}
  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override {
    behaviour_.OnCall("EnvelopeConsumer.SendEnvelope");
    behaviour_.Received(envelope);
  }
  void Heartbeat() override { behaviour_.OnCall("EnvelopeConsumer.Heartbeat"); }

 private:
  Behaviour& behaviour_;
};

class RouterConsumerServant : public POA_BrelixMessaging::RouterConsumer {
 public:
  explicit RouterConsumerServant(Behaviour& behaviour) : behaviour_(behaviour) {}
  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override {
    behaviour_.OnCall("RouterConsumer.SendEnvelope");
    behaviour_.Received(envelope);
  }
  void Heartbeat() override { behaviour_.OnCall("RouterConsumer.Heartbeat"); }

 private:
  Behaviour& behaviour_;
};

// Supplies what the Behaviour holds, the same envelope until it is acknowledged.
class RouterSupplierServant : public POA_BrelixMessaging::RouterSupplier {
 public:
  explicit RouterSupplierServant(Behaviour& behaviour) : behaviour_(behaviour) {}
  BrelixMessaging::Envelope* GetEnvelope() override {
    behaviour_.OnCall("RouterSupplier.GetEnvelope");
    return behaviour_.NextToSupply();
  }
  void AcknowledgeEnvelope(const char* originator, BrelixMessaging::MessageId id) override {
    behaviour_.OnCall("RouterSupplier.AcknowledgeEnvelope");
    behaviour_.Acknowledge(originator, id);
  }
  void Heartbeat() override { behaviour_.OnCall("RouterSupplier.Heartbeat"); }

 private:
  Behaviour& behaviour_;
};

class NotifyConsumerServant : public POA_BrelixMessaging::NotifyConsumer {
 public:
  explicit NotifyConsumerServant(Behaviour& behaviour) : behaviour_(behaviour) {}
  void Notify() override { behaviour_.OnCall("NotifyConsumer.Notify"); }
  CORBA::Long NotificationThreshold() override {
    behaviour_.OnCall("NotifyConsumer.NotificationThreshold");
    return behaviour_.Threshold();
  }

 private:
  Behaviour& behaviour_;
};

}  // namespace Peer
