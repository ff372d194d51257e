#include "support/FakeParent.h"

#include <algorithm>
#include <utility>

#include "support/FakeRoutingHost.h"

namespace TestSupport {

using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;

class FakeParent::DoorServant : public POA_BrelixMessaging::Router {
 public:
  explicit DoorServant(FakeParent& parent) : parent_(parent) {}

  void Register() override { parent_.Called("Register"); }
  void Unregister() override { parent_.Called("Unregister"); }
  void Logon(BrelixMessaging::RouterConsumer_ptr consumer,
             BrelixMessaging::RouterSupplier_ptr supplier,
             BrelixMessaging::NotifyConsumer_ptr notify,
             BrelixMessaging::RouterSupplier_out router_supplier,
             BrelixMessaging::RouterConsumer_out router_consumer,
             BrelixMessaging::NotifyConsumer_out router_notify) override {
    {
      std::lock_guard<std::mutex> guard(parent_.mutex_);
      parent_.logon_ = {!CORBA::is_nil(consumer), !CORBA::is_nil(supplier), !CORBA::is_nil(notify)};
    }
    parent_.Called("Logon");
    router_supplier = RouterSupplier::_duplicate(parent_.supplier);
    router_consumer = RouterConsumer::_duplicate(parent_.consumer);
    router_notify = NotifyConsumer::_duplicate(parent_.notify);
  }
  void Logoff() override { parent_.Called("Logoff"); }

 private:
  FakeParent& parent_;
};

class FakeParent::RootServant : public POA_BrelixMessaging::MessageRouter {
 public:
  explicit RootServant(FakeParent& parent) : parent_(parent) {}

  char* GetName() override {
    parent_.Called("GetName");
    return CORBA::string_dup(parent_.name.c_str());
  }
  BrelixMessaging::Router_ptr GetRouter() override {
    parent_.Called("GetRouter");
    return BrelixMessaging::Router::_duplicate(parent_.door_);
  }
  BrelixMessaging::Client_ptr GetClient() override { throw CORBA::NO_IMPLEMENT(); }
  BrelixMessaging::Certification_ptr GetCertification() override { throw CORBA::NO_IMPLEMENT(); }
  char* GetCACertificate() override { throw CORBA::NO_IMPLEMENT(); }
  char* GetCRL() override { throw CORBA::NO_IMPLEMENT(); }

 private:
  FakeParent& parent_;
};

FakeParent::FakeParent()
    : rootServant_(new RootServant(*this)), doorServant_(new DoorServant(*this)) {
  const CORBA::Object_var object = ReferenceOrb()->resolve_initial_references("RootPOA");
  adapter_ = PortableServer::POA::_narrow(object);
  const PortableServer::POAManager_var manager = adapter_->the_POAManager();
  manager->activate();
  rootId_ = adapter_->activate_object(rootServant_.in());
  doorId_ = adapter_->activate_object(doorServant_.in());
  const CORBA::Object_var root = adapter_->id_to_reference(rootId_);
  root_ = BrelixMessaging::MessageRouter::_narrow(root);
  const CORBA::Object_var door = adapter_->id_to_reference(doorId_);
  door_ = BrelixMessaging::Router::_narrow(door);
}

FakeParent::~FakeParent() {
  Deactivate(rootId_);
  Deactivate(doorId_);
}

void FakeParent::Deactivate(PortableServer::ObjectId_var& id) {
  try {
    adapter_->deactivate_object(id);
  } catch (const CORBA::Exception&) {
    // It is gone already.
  }
}

BrelixMessaging::MessageRouter_ptr FakeParent::Root() {
  return root_;
}

BrelixMessaging::Router_ptr FakeParent::Door() {
  return door_;
}

void FakeParent::CloseDoor() {
  Deactivate(doorId_);
}

void FakeParent::OpenDoor() {
  adapter_->activate_object_with_id(doorId_, doorServant_.in());
}

void FakeParent::HideDoor() {
  door_ = BrelixMessaging::Router::_nil();
}

void FakeParent::ShowDoor(BrelixMessaging::Router_ptr door) {
  door_ = BrelixMessaging::Router::_duplicate(door);
}

void FakeParent::Called(const std::string& operation) {
  OnCall onCall;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    calls_.push_back(operation);
    onCall = onCall_;
  }
  if (onCall) onCall(operation);
}

std::size_t FakeParent::Calls(const std::string& operation) const {
  std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), operation));
}

std::vector<std::string> FakeParent::AllCalls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_;
}

FakeParent::Logon FakeParent::LastLogon() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return logon_;
}

void FakeParent::SetOnCall(OnCall onCall) {
  std::lock_guard<std::mutex> guard(mutex_);
  onCall_ = std::move(onCall);
}

}  // namespace TestSupport
