#include "support/FakeRoutingHost.h"

#include <algorithm>
#include <stdexcept>

#include "support/AllocationFailure.h"

namespace TestSupport {

using MessageRouter::LocalObjects;
using MessageRouter::RouterTableEntry;
using MessageRouter::Thresholds;

// The process's ORB, whoever made it; one of its own where there is none.
CORBA::ORB_var ReferenceOrb() {
  int argc = 0;
  return CORBA::ORB_init(argc, nullptr);
}

CORBA::Object_ptr AReference(const std::string& key) {
  // Port 9 of this machine: a call fails at once instead of leaving it.
  return ReferenceOrb()->string_to_object(("corbaloc::127.0.0.1:9/" + key).c_str());
}

bool SameReference(CORBA::Object_ptr left, CORBA::Object_ptr right) {
  if (CORBA::is_nil(left) || CORBA::is_nil(right))
    return CORBA::is_nil(left) && CORBA::is_nil(right);
  return left->_is_equivalent(right);
}

CORBA::Object_ptr FakeLocalObjects::Create(const std::string& kind) {
  if (onCreate) onCreate();
  const MemoryThere memory;
  std::lock_guard<std::mutex> guard(mutex_);
  if (successesLeft_ == 0) {
    successesLeft_ = -1;
    throw std::runtime_error("creation failed");
  }
  if (successesLeft_ > 0) --successesLeft_;
  const std::string name = kind + "-" + std::to_string(++created_);
  CORBA::Object_var object = AReference(name);
  active_.emplace_back(name, object);
  return object._retn();
}

template <class Interface>
typename Interface::_ptr_type FakeLocalObjects::Make(const std::string& kind) {
  const CORBA::Object_var object = Create(kind);
  const MemoryThere memory;
  return Interface::_unchecked_narrow(object);
}

BrelixMessaging::MessageConsumer_ptr FakeLocalObjects::CreateClientConsumer() {
  return Make<BrelixMessaging::MessageConsumer>("client-consumer");
}

BrelixMessaging::EnvelopeSupplier_ptr FakeLocalObjects::CreateClientSupplier() {
  return Make<BrelixMessaging::EnvelopeSupplier>("client-supplier");
}

BrelixMessaging::RouterConsumer_ptr FakeLocalObjects::CreateRouterConsumer() {
  return Make<BrelixMessaging::RouterConsumer>("router-consumer");
}

BrelixMessaging::RouterSupplier_ptr FakeLocalObjects::CreateRouterSupplier() {
  return Make<BrelixMessaging::RouterSupplier>("router-supplier");
}

BrelixMessaging::NotifyConsumer_ptr FakeLocalObjects::CreateNotifyConsumer() {
  return Make<BrelixMessaging::NotifyConsumer>("notify");
}

BrelixMessaging::MessageConsumer_ptr FakeLocalObjects::CreateCertConsumer(const std::string& name) {
  return Make<BrelixMessaging::MessageConsumer>("cert-consumer-of-" + name);
}

BrelixMessaging::EnvelopeSupplier_ptr FakeLocalObjects::CreateCertSupplier(
    const std::string& name) {
  return Make<BrelixMessaging::EnvelopeSupplier>("cert-supplier-of-" + name);
}

void FakeLocalObjects::Deactivate(CORBA::Object_ptr object) {
  if (CORBA::is_nil(object)) return;
  if (onDeactivate) onDeactivate();
  const MemoryThere memory;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto found = std::find_if(active_.begin(), active_.end(), [&](const auto& known) {
      return SameReference(known.second, object);
    });
    if (found == active_.end()) throw PortableServer::POA::ObjectNotActive();
    active_.erase(found);
  }
  if (failDeactivation_) throw CORBA::OBJ_ADAPTER();
}

std::vector<std::string> FakeLocalObjects::Active() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::string> names;
  for (const auto& known : active_) names.push_back(known.first);
  return names;
}

std::size_t FakeLocalObjects::Created() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return created_;
}

void FakeLocalObjects::FailCreationAfter(std::size_t successes) {
  std::lock_guard<std::mutex> guard(mutex_);
  successesLeft_ = static_cast<std::ptrdiff_t>(successes);
}

LocalObjects& FakeRoutingHost::Objects() {
  if (noObjects_) throw std::runtime_error("ServantHelper not initialized");
  return objects;
}

Thresholds FakeRoutingHost::GetThresholds() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return thresholds_;
}

void FakeRoutingHost::SetThresholds(const Thresholds& thresholds) {
  std::lock_guard<std::mutex> guard(mutex_);
  thresholds_ = thresholds;
}

void FakeRoutingHost::OfferToSenders(RouterTableEntry& entry) {
  if (onOfferToSenders) onOfferToSenders();
  const MemoryThere memory;
  std::lock_guard<std::mutex> guard(mutex_);
  senders_.push_back(&entry);
}

void FakeRoutingHost::NotifiedPoll(RouterTableEntry& entry) {
  if (!entry.readyForNotifiedPoll()) return;
  const MemoryThere memory;
  std::lock_guard<std::mutex> guard(mutex_);
  pollers_.push_back(&entry);
}

void FakeRoutingHost::OfferToGetters(RouterTableEntry& entry) {
  const MemoryThere memory;
  std::lock_guard<std::mutex> guard(mutex_);
  getters_.push_back(&entry);
}

void FakeRoutingHost::OfferToThreshold(RouterTableEntry& entry) {
  const MemoryThere memory;
  std::lock_guard<std::mutex> guard(mutex_);
  thresholdCalls_.push_back(&entry);
}

void FakeRoutingHost::ParentLinkLost() {
  if (onParentLinkLost) onParentLinkLost();
  ++linksLost_;
}

CORBA::Object_ptr FakeRoutingHost::StringToObject(const std::string& ior) {
  return ReferenceOrb()->string_to_object(ior.c_str());
}

std::string FakeRoutingHost::ObjectToString(CORBA::Object_ptr object) {
  if (onObjectToString) onObjectToString();
  if (failObjectToString_.exchange(false)) throw CORBA::COMM_FAILURE();
  const CORBA::String_var text = ReferenceOrb()->object_to_string(object);
  return text.in();
}

std::vector<RouterTableEntry*> FakeRoutingHost::Senders() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return senders_;
}

std::vector<RouterTableEntry*> FakeRoutingHost::Pollers() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return pollers_;
}

std::vector<RouterTableEntry*> FakeRoutingHost::Getters() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return getters_;
}

std::vector<RouterTableEntry*> FakeRoutingHost::ThresholdCalls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return thresholdCalls_;
}

void FakeRoutingHost::ForgetOffers() {
  std::lock_guard<std::mutex> guard(mutex_);
  senders_.clear();
  pollers_.clear();
  getters_.clear();
  thresholdCalls_.clear();
}

}  // namespace TestSupport
