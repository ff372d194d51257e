#pragma once

#include <BrelixMessaging.h>

#include "routing/RoutingHost.h"

namespace RouterServants {

// Makes and deactivates the per-peer servants on "RouterTransient" and "RouterCertify".
// Threads: any. The main thread sets and clears the instance; a request may still use one that has
// been cleared.
class ServantHelper : public MessageRouter::LocalObjects {
 public:
  // Throws std::runtime_error "ServantHelper not initialized".
  static ServantHelper& instance();

  BrelixMessaging::MessageConsumer_ptr CreateClientConsumer() override;
  BrelixMessaging::EnvelopeSupplier_ptr CreateClientSupplier() override;
  BrelixMessaging::RouterConsumer_ptr CreateRouterConsumer() override;
  BrelixMessaging::RouterSupplier_ptr CreateRouterSupplier() override;
  BrelixMessaging::NotifyConsumer_ptr CreateNotifyConsumer() override;
  BrelixMessaging::MessageConsumer_ptr CreateCertConsumer(const std::string& name) override;
  BrelixMessaging::EnvelopeSupplier_ptr CreateCertSupplier(const std::string& name) override;
  void Deactivate(CORBA::Object_ptr object) override;

 private:
  friend void InitializeServantHelper(PortableServer::POA_ptr, PortableServer::POA_ptr);
  ServantHelper(PortableServer::POA_ptr transientPoa, PortableServer::POA_ptr certifyPoa);

  PortableServer::POA_var transientPOA;
  PortableServer::POA_var certifyPOA;
};

void InitializeServantHelper(PortableServer::POA_ptr transientPoa,
                             PortableServer::POA_ptr certifyPoa);
// From now on there is none. The object itself lives until FreeServantHelper: a request that is
// being refused, which no adapter waits for, may be using it.
void DestroyServantHelper();
void FreeServantHelper();

}  // namespace RouterServants
