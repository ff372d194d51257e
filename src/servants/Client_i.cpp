#include "servants/Client_i.h"

#include <string>

#include "envelope/Address.h"
#include "logging/Log.h"
#include "servants/CallBack.h"
#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

using BrelixMessaging::EnvelopeConsumer;
using BrelixMessaging::EnvelopeConsumer_ptr;
using BrelixMessaging::EnvelopeSupplier;
using BrelixMessaging::MessageConsumer;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::NotifyConsumer_ptr;
using MessageRouter::LogInfo;
using MessageRouter::LogWarning;
using MessageRouter::RouterTableEntry;
using MessageRouter::Shown;
using MessageRouter::ShownName;

namespace {

// Logs the caller on and returns the objects that are now its own.
RouterTableEntry::LocalPeerObjects LogOn(const std::string& name, EnvelopeConsumer_ptr consumer,
                                         NotifyConsumer_ptr notify) {
  return RunningRouting().LogonClientPeer(name, consumer, notify, 0);
}

void ReportLogon(const std::string& name) {
  LogInfo("Logged on %s as a client\n", ShownName(name).c_str());
}

}  // namespace

void Client_i::Register() {
  Operation("Client::Register", [] {
    const std::string name = CallerName();
    RunningRouting().RegisterPeer(name, false);
    LogInfo("Registered client %s\n", Shown(name).c_str());
  });
}

void Client_i::Unregister() {
  Operation("Client::Unregister", [] {
    const std::string name = CallerName();
    RunningRouting().UnregisterPeer(name, false);
    LogInfo("Unregistered client %s\n", Shown(name).c_str());
  });
}

// The peer is tried before anything of its old session is thrown away.
void Client_i::Logon(EnvelopeConsumer_ptr consumer, NotifyConsumer_ptr notify,
                     BrelixMessaging::MessageConsumer_out message_consumer,
                     BrelixMessaging::EnvelopeSupplier_out supplier) {
  Operation("Client::Logon", [&] {
    const std::string name = CallerName();
    EnvelopeConsumer_ptr reachable =
        IfItAnswers<EnvelopeConsumer>("Client::Logon", "client", consumer);
    const auto local = LogOn(name, reachable, notify);
    message_consumer = MessageConsumer::_narrow(local.consumer);
    supplier = EnvelopeSupplier::_duplicate(local.supplier);
    ReportLogon(name);
  });
}

void Client_i::LogonPushPush(EnvelopeConsumer_ptr consumer,
                             BrelixMessaging::MessageConsumer_out message_consumer) {
  Operation("Client::LogonPushPush", [&] {
    const std::string name = CallerName();
    EnvelopeConsumer_ptr reachable =
        IfItAnswers<EnvelopeConsumer>("Client::LogonPushPush", "client", consumer);
    if (CORBA::is_nil(reachable)) {
      // After a failed call back the line stands in the log twice.
      LogWarning("Client::LogonPushPush() failed to call back to client\n");
      throw BrelixMessaging::UnreachableConsumer();
    }
    const auto local = LogOn(name, reachable, NotifyConsumer::_nil());
    message_consumer = MessageConsumer::_narrow(local.consumer);
    ReportLogon(name);
  });
}

void Client_i::LogonPushPull(NotifyConsumer_ptr notify,
                             BrelixMessaging::MessageConsumer_out message_consumer,
                             BrelixMessaging::EnvelopeSupplier_out supplier) {
  Operation("Client::LogonPushPull", [&] {
    const std::string name = CallerName();
    const auto local = LogOn(name, EnvelopeConsumer::_nil(), notify);
    message_consumer = MessageConsumer::_narrow(local.consumer);
    supplier = EnvelopeSupplier::_duplicate(local.supplier);
    ReportLogon(name);
  });
}

void Client_i::Logoff() {
  Operation("Client::Logoff", [] {
    const std::string name = CallerName();
    RunningRouting().LogoffPeer(name);
    LogInfo("Logged off %s\n", Shown(name).c_str());
  });
}

}  // namespace RouterServants
