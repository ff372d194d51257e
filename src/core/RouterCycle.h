#pragma once

#include <BrelixMessaging.h>

#include <memory>
#include <string>

#include "broker/Orb.h"
#include "core/HostIPAddressMonitor.h"
#include "core/IPAddressSet.h"
#include "core/OrbRunner.h"
#include "servants/MessageRouter_i.h"

namespace MessageRouter {

class Router;

// One life of the broker inside the process. Build brings everything up; the destructor takes down
// what was brought up, in order, on every way out, each step on its own: a step that fails is
// logged, and the next one follows.
// Threads: the main thread alone.
class RouterCycle {
 public:
  RouterCycle(Router& router, const ACEHelpers::IPAddressSet& hostAddresses,
              unsigned monitorIntervalSeconds);
  ~RouterCycle();
  RouterCycle(const RouterCycle&) = delete;
  RouterCycle& operator=(const RouterCycle&) = delete;

  // Throws what ends the start.
  void Build();

 private:
  void MakeBroker();
  void MakeAdapters();
  void MakeRootObject();
  void LoadState();
  void Run();
  void TearDown();

  Router& router_;
  HostIPAddressMonitor<ACEHelpers::IPAddressSet> monitor_;
  std::unique_ptr<Broker::Orb> orb_;
  std::unique_ptr<OrbRunner> runner_;
  PortableServer::POA_var rootPoa_;
  PortableServer::POA_var persistentPoa_;
  PortableServer::POA_var transientPoa_;
  PortableServer::POA_var certifyPoa_;
  PortableServer::POAManager_var manager_;
  PortableServer::Servant_var<RouterServants::MessageRouter_i> root_;
  PortableServer::ObjectId_var rootId_;
  CORBA::Object_var rootReference_;
};

}  // namespace MessageRouter
