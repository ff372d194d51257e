#include "servants/MessageRouter_i.h"

#include <string>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "security/CertificateContext.h"
#include "servants/Certification_i.h"
#include "servants/Client_i.h"
#include "servants/Frame.h"
#include "servants/Router_i.h"

namespace RouterServants {

using MessageRouter::CertificateContext;
using MessageRouter::GetConfigBool;
using MessageRouter::LogError;

namespace {

// The id is fixed, so that the reference that a peer keeps outlives this process.
template <class Interface>
auto ActivateDoor(PortableServer::POA_ptr adapter, const char* name,
                  PortableServer::ServantBase* servant) {
  const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name);
  adapter->activate_object_with_id(id, servant);
  const CORBA::Object_var object = adapter->id_to_reference(id);
  return Interface::_narrow(object);
}

}  // namespace

MessageRouter_i::MessageRouter_i(PortableServer::POA_ptr persistentPoa)
    : clientServant(new Client_i),
      routerServant(new Router_i),
      certificationServant(new Certification_i),
      clientObject(
          ActivateDoor<BrelixMessaging::Client>(persistentPoa, "Client", clientServant.in())),
      routerObject(
          ActivateDoor<BrelixMessaging::Router>(persistentPoa, "Router", routerServant.in())),
      certificationObject(ActivateDoor<BrelixMessaging::Certification>(
          persistentPoa, "Certification", certificationServant.in())) {}

MessageRouter_i::~MessageRouter_i() = default;

char* MessageRouter_i::GetName() {
  return OpenOperation("MessageRouter::GetName", [] {
    return CORBA::string_dup(CertificateContext::instance().OwnCommonName().c_str());
  });
}

// The keys of the doors are read at each call: a change in the store counts at once.
BrelixMessaging::Client_ptr MessageRouter_i::GetClient() {
  return OpenOperation("MessageRouter::GetClient", [this] {
    if (GetConfigBool("NoClientInterface", false)) throw BrelixMessaging::Rejected();
    if (GetConfigBool("LocalClientsOnly", true) && !CertificateContext::instance().IsPeerLocal()) {
      LogError("Attempt to get client interface from non-local caller\n");
      throw BrelixMessaging::Rejected();
    }
    return BrelixMessaging::Client::_duplicate(clientObject);
  });
}

BrelixMessaging::Router_ptr MessageRouter_i::GetRouter() {
  return OpenOperation("MessageRouter::GetRouter", [this] {
    if (GetConfigBool("NoRouterInterface", false) ||
        !CertificateContext::instance().IsPeerRouter()) {
      throw BrelixMessaging::Rejected();
    }
    return BrelixMessaging::Router::_duplicate(routerObject);
  });
}

BrelixMessaging::Certification_ptr MessageRouter_i::GetCertification() {
  return OpenOperation("MessageRouter::GetCertification", [this] {
    if (GetConfigBool("NoCertificationInterface", false)) {
      return BrelixMessaging::Certification::_nil();
    }
    return BrelixMessaging::Certification::_duplicate(certificationObject);
  });
}

// A peer gets the authority's certificate through certification and not here.
char* MessageRouter_i::GetCACertificate() {
  return OpenOperation("MessageRouter::GetCACertificate", [] { return CORBA::string_dup(""); });
}

char* MessageRouter_i::GetCRL() {
  return OpenOperation("MessageRouter::GetCRL", [] { return CORBA::string_dup(""); });
}

}  // namespace RouterServants
