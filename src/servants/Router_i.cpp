#include "servants/Router_i.h"

#include <string>

#include "config/Configuration.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "security/CertificateContext.h"
#include "servants/CallBack.h"
#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterConsumer_ptr;
using BrelixMessaging::RouterSupplier;
using BrelixMessaging::RouterSupplier_ptr;
using MessageRouter::CertificateContext;
using MessageRouter::LogInfo;
using MessageRouter::LogWarning;
using MessageRouter::Shown;
using MessageRouter::ShownName;

namespace {

// As CallerName, for callers that are routers alone.
std::string CallingRouterName() {
  if (!CertificateContext::instance().IsPeerRouter()) throw BrelixMessaging::Rejected();
  return CallerName();
}

RouterConsumer_ptr TestConsumer(const std::string& name, RouterConsumer_ptr consumer) {
  if (MessageRouter::GetConfigInt("LogonCallback", 0) == 0 || CORBA::is_nil(consumer)) {
    return consumer;
  }
  RouterConsumer_ptr reachable =
      IfItAnswers<RouterConsumer>("Router::Logon", "router consumer", consumer);
  if (CORBA::is_nil(reachable)) {
    // Only the consumer's absence makes delivery slow.
    LogWarning("%s is likely to be behind a firewall, causing slow message delivery\n",
               Shown(name).c_str());
  }
  return reachable;
}

}  // namespace

void Router_i::Register() {
  Operation("Router::Register", [] {
    const std::string name = CallingRouterName();
    if (name == CertificateContext::instance().OwnCommonName()) {
      LogInfo("Self registration by %s is illegal", Shown(name).c_str());
      throw BrelixMessaging::Rejected();
    }
    RunningRouting().RegisterPeer(name, true);
    LogInfo("Registered router %s\n", Shown(name).c_str());
  });
}

void Router_i::Unregister() {
  Operation("Router::Unregister", [] {
    const std::string name = CallingRouterName();
    RunningRouting().UnregisterPeer(name, true);
    LogInfo("Unregistered router %s\n", Shown(name).c_str());
  });
}

void Router_i::Logon(RouterConsumer_ptr consumer, RouterSupplier_ptr supplier,
                     BrelixMessaging::NotifyConsumer_ptr notify,
                     BrelixMessaging::RouterSupplier_out router_supplier,
                     BrelixMessaging::RouterConsumer_out router_consumer,
                     BrelixMessaging::NotifyConsumer_out router_notify) {
  Operation("Router::Logon", [&] {
    const std::string name = CallingRouterName();
    RouterConsumer_ptr goodConsumer = TestConsumer(name, consumer);
    RouterSupplier_ptr goodSupplier =
        IfItAnswers<RouterSupplier>("Router::Logon", "router supplier", supplier);

    const auto local =
        RunningRouting().LogonRouterPeer(name, goodConsumer, goodSupplier, notify, 0);
    router_supplier = RouterSupplier::_narrow(local.supplier);
    router_consumer = RouterConsumer::_narrow(local.consumer);
    router_notify = NotifyConsumer::_duplicate(local.notify);
    LogInfo("Logged on %s as a router\n", ShownName(name).c_str());
  });
}

void Router_i::Logoff() {
  Operation("Router::Logoff", [] {
    const std::string name = CallingRouterName();
    RunningRouting().LogoffPeer(name);
    LogInfo("Logged off %s\n", Shown(name).c_str());
  });
}

}  // namespace RouterServants
