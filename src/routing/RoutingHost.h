#pragma once

#include <BrelixMessaging.h>

#include <cstdint>
#include <string>

#include "routing/Thresholds.h"

namespace MessageRouter {

class Envelope;
class RouterTableEntry;

// The per-peer objects that this router activates for its peers.
// Threads: any. No lock is held when these are called.
class LocalObjects {
 public:
  virtual ~LocalObjects() = default;
  // Each makes and activates a servant; the caller owns the reference.
  virtual BrelixMessaging::MessageConsumer_ptr CreateClientConsumer() = 0;
  virtual BrelixMessaging::EnvelopeSupplier_ptr CreateClientSupplier() = 0;
  virtual BrelixMessaging::RouterConsumer_ptr CreateRouterConsumer() = 0;
  virtual BrelixMessaging::RouterSupplier_ptr CreateRouterSupplier() = 0;
  virtual BrelixMessaging::NotifyConsumer_ptr CreateNotifyConsumer() = 0;
  virtual BrelixMessaging::MessageConsumer_ptr CreateCertConsumer(const std::string& name) = 0;
  virtual BrelixMessaging::EnvelopeSupplier_ptr CreateCertSupplier(const std::string& name) = 0;
  // A nil object is ignored.
  virtual void Deactivate(CORBA::Object_ptr object) = 0;
};

// What routing asks of the rest of the router. Implemented by Router; tests play it.
// Threads: any. No lock of this folder is held when these are called. Nobody repeats an offer: it
// reaches its pool whatever memory there is.
class RoutingHost {
 public:
  virtual ~RoutingHost() = default;

  // Throws std::runtime_error "ServantHelper not initialized" before the start and after the stop.
  virtual LocalObjects& Objects() = 0;
  virtual Thresholds GetThresholds() const = 0;

  // The sender pool.
  virtual void OfferToSenders(RouterTableEntry& entry) = 0;
  // Whether an offer of a peer to which a sender is at work already matters: it is a count of how
  // long that sender has been stuck.
  virtual bool CountsBusyOffers() const { return true; }
  // A poll at once, if the entry waits for its poll time.
  virtual void NotifiedPoll(RouterTableEntry& entry) = 0;
  // The getter pool: a poll that was found due, and could not be made then.
  virtual void OfferToGetters(RouterTableEntry& entry) = 0;
  // The notification threshold thread, or the warning that there is none.
  virtual void OfferToThreshold(RouterTableEntry& entry) = 0;

  // The parent's entry was reset, whatever the cause.
  virtual void ParentLinkLost() = 0;

  virtual CORBA::Object_ptr StringToObject(const std::string& ior) = 0;
  virtual std::string ObjectToString(CORBA::Object_ptr object) = 0;
};

}  // namespace MessageRouter
