#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

class Client_i;
class Router_i;
class Certification_i;

// The root object: the one that a stranger can reach, and the three doors behind it.
class MessageRouter_i : public POA_BrelixMessaging::MessageRouter {
 public:
  // Activates the doors on the adapter, under the ids "Client", "Router" and "Certification".
  explicit MessageRouter_i(PortableServer::POA_ptr persistentPoa);
  ~MessageRouter_i() override;

  char* GetName() override;
  BrelixMessaging::Client_ptr GetClient() override;
  BrelixMessaging::Router_ptr GetRouter() override;
  BrelixMessaging::Certification_ptr GetCertification() override;
  char* GetCACertificate() override;
  char* GetCRL() override;

 private:
  PortableServer::Servant_var<Client_i> clientServant;
  PortableServer::Servant_var<Router_i> routerServant;
  PortableServer::Servant_var<Certification_i> certificationServant;
  BrelixMessaging::Client_var clientObject;
  BrelixMessaging::Router_var routerObject;
  BrelixMessaging::Certification_var certificationObject;
};

}  // namespace RouterServants
