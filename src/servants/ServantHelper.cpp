#include "servants/ServantHelper.h"

#include <atomic>
#include <stdexcept>

#include "servants/CertEnvelopeSupplier_i.h"
#include "servants/CertMessageConsumer_i.h"
#include "servants/ClientMessageConsumer_i.h"
#include "servants/EnvelopeSupplier_i.h"
#include "servants/NotifyConsumer_i.h"
#include "servants/RouterConsumer_i.h"

namespace RouterServants {
namespace {

std::atomic<ServantHelper*> theHelper{nullptr};
std::atomic<ServantHelper*> retiredHelper{nullptr};

// Takes over the caller's count of the servant. Once it is active the adapter is its only owner, so
// that deactivating it destroys it.
template <class Interface>
auto Activate(PortableServer::POA_ptr adapter, PortableServer::ServantBase* servant) {
  PortableServer::ServantBase_var owner(servant);
  const PortableServer::ObjectId_var id = adapter->activate_object(servant);
  owner = nullptr;
  const CORBA::Object_var object = adapter->id_to_reference(id);
  return Interface::_narrow(object);
}

void DeactivateOn(PortableServer::POA_ptr adapter, CORBA::Object_ptr object) {
  const PortableServer::ObjectId_var id = adapter->reference_to_id(object);
  adapter->deactivate_object(id);
}

}  // namespace

ServantHelper::ServantHelper(PortableServer::POA_ptr transientPoa,
                             PortableServer::POA_ptr certifyPoa)
    : transientPOA(PortableServer::POA::_duplicate(transientPoa)),
      certifyPOA(PortableServer::POA::_duplicate(certifyPoa)) {}

ServantHelper& ServantHelper::instance() {
  ServantHelper* helper = theHelper.load();
  if (helper == nullptr) throw std::runtime_error("ServantHelper not initialized");
  return *helper;
}

BrelixMessaging::MessageConsumer_ptr ServantHelper::CreateClientConsumer() {
  return Activate<BrelixMessaging::MessageConsumer>(transientPOA, new ClientMessageConsumer_i);
}

BrelixMessaging::EnvelopeSupplier_ptr ServantHelper::CreateClientSupplier() {
  return Activate<BrelixMessaging::EnvelopeSupplier>(transientPOA, new EnvelopeSupplier_i(false));
}

BrelixMessaging::RouterConsumer_ptr ServantHelper::CreateRouterConsumer() {
  return Activate<BrelixMessaging::RouterConsumer>(transientPOA, new RouterConsumer_i);
}

BrelixMessaging::RouterSupplier_ptr ServantHelper::CreateRouterSupplier() {
  return Activate<BrelixMessaging::RouterSupplier>(transientPOA, new EnvelopeSupplier_i(true));
}

BrelixMessaging::NotifyConsumer_ptr ServantHelper::CreateNotifyConsumer() {
  return Activate<BrelixMessaging::NotifyConsumer>(transientPOA, new NotifyConsumer_i);
}

BrelixMessaging::MessageConsumer_ptr ServantHelper::CreateCertConsumer(const std::string& name) {
  return Activate<BrelixMessaging::MessageConsumer>(certifyPOA, new CertMessageConsumer_i(name));
}

BrelixMessaging::EnvelopeSupplier_ptr ServantHelper::CreateCertSupplier(const std::string& name) {
  return Activate<BrelixMessaging::EnvelopeSupplier>(certifyPOA, new CertEnvelopeSupplier_i(name));
}

// An entry does not know on which adapter its objects live: the adapters tell.
void ServantHelper::Deactivate(CORBA::Object_ptr object) {
  if (CORBA::is_nil(object)) return;
  try {
    DeactivateOn(transientPOA, object);
  } catch (const PortableServer::POA::WrongAdapter&) {
    DeactivateOn(certifyPOA, object);
  }
}

void InitializeServantHelper(PortableServer::POA_ptr transientPoa,
                             PortableServer::POA_ptr certifyPoa) {
  delete theHelper.exchange(new ServantHelper(transientPoa, certifyPoa));
}

void DestroyServantHelper() {
  delete retiredHelper.exchange(theHelper.exchange(nullptr));
}

void FreeServantHelper() {
  delete retiredHelper.exchange(nullptr);
}

}  // namespace RouterServants
