#pragma once

#include <BrelixMessaging.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "routing/RouterTableEntry.h"
#include "routing/RoutingHost.h"

namespace TestSupport {

// References that lead nowhere: they can be held, compared and turned into text, and nobody may
// call them. `key` tells them apart.
CORBA::Object_ptr AReference(const std::string& key);
template <class Interface>
typename Interface::_ptr_type AReferenceTo(const std::string& key) {
  const CORBA::Object_var object = AReference(key);
  return Interface::_unchecked_narrow(object);
}
bool SameReference(CORBA::Object_ptr left, CORBA::Object_ptr right);
// The ORB behind these references: the process's, or one without an endpoint where there is none.
CORBA::ORB_var ReferenceOrb();

// Makes references in place of servants and knows which of them are still active, by names such as
// "client-consumer-1".
// Threads: any.
class FakeLocalObjects : public MessageRouter::LocalObjects {
 public:
  BrelixMessaging::MessageConsumer_ptr CreateClientConsumer() override;
  BrelixMessaging::EnvelopeSupplier_ptr CreateClientSupplier() override;
  BrelixMessaging::RouterConsumer_ptr CreateRouterConsumer() override;
  BrelixMessaging::RouterSupplier_ptr CreateRouterSupplier() override;
  BrelixMessaging::NotifyConsumer_ptr CreateNotifyConsumer() override;
  BrelixMessaging::MessageConsumer_ptr CreateCertConsumer(const std::string& name) override;
  BrelixMessaging::EnvelopeSupplier_ptr CreateCertSupplier(const std::string& name) override;
  void Deactivate(CORBA::Object_ptr object) override;

  std::vector<std::string> Active() const;
  std::size_t Created() const;
  // The creation after that many more throws std::runtime_error.
  void FailCreationAfter(std::size_t successes);
  // Every deactivation throws, after its effect.
  void FailDeactivation(bool fail) { failDeactivation_ = fail; }

  // Run in the calls, before their effect.
  std::function<void()> onCreate;
  std::function<void()> onDeactivate;

 private:
  CORBA::Object_ptr Create(const std::string& kind);
  template <class Interface>
  typename Interface::_ptr_type Make(const std::string& kind);

  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, CORBA::Object_var>> active_;
  std::size_t created_ = 0;
  std::ptrdiff_t successesLeft_ = -1;  // below 0: no failure is planned
  std::atomic<bool> failDeactivation_{false};
};

// The rest of the router, as routing sees it: records what it is offered.
// Threads: any.
class FakeRoutingHost : public MessageRouter::RoutingHost {
 public:
  // Throws as the real one does after `NoObjects`.
  MessageRouter::LocalObjects& Objects() override;
  MessageRouter::Thresholds GetThresholds() const override;
  void OfferToSenders(MessageRouter::RouterTableEntry& entry) override;
  bool CountsBusyOffers() const override { return countsBusyOffers; }
  void NotifiedPoll(MessageRouter::RouterTableEntry& entry) override;
  void OfferToGetters(MessageRouter::RouterTableEntry& entry) override;
  void OfferToThreshold(MessageRouter::RouterTableEntry& entry) override;
  void ParentLinkLost() override;
  // Throws CORBA::BAD_PARAM for text that is no reference.
  CORBA::Object_ptr StringToObject(const std::string& ior) override;
  std::string ObjectToString(CORBA::Object_ptr object) override;

  FakeLocalObjects objects;
  void NoObjects() { noObjects_ = true; }
  void SetThresholds(const MessageRouter::Thresholds& thresholds);

  bool countsBusyOffers = false;  // as with no monitoring of senders

  // The entries offered so far.
  std::vector<MessageRouter::RouterTableEntry*> Senders() const;
  std::vector<MessageRouter::RouterTableEntry*> Pollers() const;
  std::vector<MessageRouter::RouterTableEntry*> Getters() const;
  std::vector<MessageRouter::RouterTableEntry*> ThresholdCalls() const;
  void ForgetOffers();
  unsigned LinksLost() const { return linksLost_; }
  // The next conversion of a reference to text throws CORBA::COMM_FAILURE.
  void FailNextObjectToString() { failObjectToString_ = true; }

  // Run in the calls, before their effect.
  std::function<void()> onParentLinkLost;
  std::function<void()> onObjectToString;
  std::function<void()> onOfferToSenders;

 private:
  using Offers = std::vector<MessageRouter::RouterTableEntry*>;

  mutable std::mutex mutex_;
  MessageRouter::Thresholds thresholds_;
  Offers senders_;
  Offers pollers_;
  Offers getters_;
  Offers thresholdCalls_;
  std::atomic<unsigned> linksLost_{0};
  std::atomic<bool> noObjects_{false};
  std::atomic<bool> failObjectToString_{false};
};

}  // namespace TestSupport
