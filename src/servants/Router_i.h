#pragma once

#include <BrelixMessaging.h>

namespace RouterServants {

// The door for child routers: every operation is refused to a caller without the router's role.
// The caller's certificate says who it is.
// Threads: any; no state.
class Router_i : public POA_BrelixMessaging::Router {
 public:
  void Register() override;
  void Unregister() override;
  // A consumer is called back only if LogonCallback (default 0) is set, a supplier always; what
  // doesn't answer is dropped, and the logon goes on without it.
  void Logon(BrelixMessaging::RouterConsumer_ptr consumer,
             BrelixMessaging::RouterSupplier_ptr supplier,
             BrelixMessaging::NotifyConsumer_ptr notify,
             BrelixMessaging::RouterSupplier_out router_supplier,
             BrelixMessaging::RouterConsumer_out router_consumer,
             BrelixMessaging::NotifyConsumer_out router_notify) override;
  void Logoff() override;
};

}  // namespace RouterServants
