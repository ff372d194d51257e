#pragma once

#include <BrelixMessaging.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Behaviour.h"
#include "broker/Orb.h"
#include "client_library/Identity.h"

namespace Peer {

// Everything that the peer holds of a router. Reconnect replaces all of it while a bulk job runs on
// another thread, hence copies under a lock.
struct References {
  BrelixMessaging::MessageRouter_var root;
  BrelixMessaging::Client_var client;
  BrelixMessaging::Router_var router;
  BrelixMessaging::Certification_var certification;
  BrelixMessaging::MessageConsumer_var messages;
  BrelixMessaging::EnvelopeSupplier_var supplier;
  BrelixMessaging::RouterConsumer_var routerConsumer;
  BrelixMessaging::RouterSupplier_var routerSupplier;
  BrelixMessaging::NotifyConsumer_var routerNotify;
};

// The peer's ORB, its own objects, and its way to a router.
// Threads: the command loop; Get and Reconnect also from bulk jobs.
class Links {
 public:
  explicit Links(Behaviour& behaviour) : behaviour_(behaviour) {}

  // {"identity": folder or null, "ca": folder, "server": bool, "timeout": seconds, "weak": bool,
  //  "orb_args": [...]}
  void Open(const Json& arguments);
  void Close();
  bool IsOpen() const { return orb_ != nullptr; }

  // {"host", "port"} or {"ior"}; returns the IOR.
  std::string Connect(const Json& arguments);
  // Does the last connect and the last logon again, with a new reference.
  void Reconnect();

  // "Client.Logon", "Client.LogonPushPush", "Client.LogonPushPull" or "Router.Logon"; the arguments
  // tell which of our objects are offered.
  void Logon(const std::string& form, const Json& arguments);

  References Get() const;
  void Set(const References& references);

  CORBA::ORB_ptr Orb() const { return orb_->Get(); }

 private:
  void ActivateOwnObjects();

  Behaviour& behaviour_;
  std::optional<ClientLibrary::Identity> identity_;
  std::unique_ptr<Broker::Orb> orb_;
  bool server_ = false;
  std::chrono::milliseconds limit_{30000};
  BrelixMessaging::EnvelopeConsumer_var ownConsumer_;
  BrelixMessaging::RouterConsumer_var ownRouterConsumer_;
  BrelixMessaging::RouterSupplier_var ownSupplier_;
  BrelixMessaging::NotifyConsumer_var ownNotify_;

  mutable ThreadHelper::Mutex mutex_;
  References references_ GUARDED_BY(mutex_);
  Json lastConnect_ GUARDED_BY(mutex_);
  std::string lastForm_ GUARDED_BY(mutex_);
  Json lastLogon_ GUARDED_BY(mutex_);
};

}  // namespace Peer
