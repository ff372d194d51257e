#include "routing/Dispatcher.h"

#include <exception>
#include <functional>
#include <new>
#include <sstream>

#include "broker/CorbaExceptions.h"
#include "broker/TakeOut.h"
#include "envelope/Address.h"
#include "envelope/Envelope.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/RouterTable.h"
#include "routing/Routing.h"
#include "security/Roles.h"

namespace MessageRouter {
namespace {

// One line, on the thread's own stream.
void Emit(const std::string& line, const Envelope& envelope) {
  std::ostringstream* const stream = LogStream();
  if (stream == nullptr) return;
  *stream << line << " originator " << Shown(envelope.Originator()) << '\n';
  LogStreamFlush(stream, kLogInfo);
}

CORBA::Any AsPayload(const std::string& text) {
  CORBA::Any any;
  any <<= text.c_str();
  return any;
}

// What the table knows of a name; empty where that name is not registered.
CORBA::Any StatusOf(const std::string& name, const RouterTable& table) {
  CORBA::Any any;
  const RouterTableEntry* const entry = table.Find(name);
  if (entry == nullptr) return any;
  if (const auto status = entry->StatusOf(name)) any <<= *status;
  return any;
}

// Whether notices to that address come to anybody else: not if it leads nowhere, or back here.
bool LeadsElsewhere(const std::string& address) {
  const std::string hops = TidyAddress(address);
  return !hops.empty() && !IsThisRouter(hops);
}

}  // namespace

std::string PayloadAsString(Envelope& envelope) {
  CORBA::Any any;
  envelope.GetData(any);
  const char* text = nullptr;
  return Broker::TakeOut(any, text) ? text : "";
}

Dispatcher::Key Dispatcher::KeyOf(const Envelope& envelope) {
  return {envelope.MessageId(), std::hash<std::string>()(envelope.Originator())};
}

bool Dispatcher::DispatchLocal(Envelope& envelope, RouterTable& table, Logical* logical,
                               const StopTest& stopping) {
  if (told_ && *told_ != KeyOf(envelope)) told_.reset();
  const std::string& type = envelope.Type();
  if (IsManagementType(type)) {
    HandleManagement(envelope, table);
  } else if (IsSystemType(type)) {
    const bool done = HandleSystem(envelope, table, logical, stopping);
    told_.reset();
    return done;
  } else if (IsCertificationType(type)) {
    HandleCertification(envelope);
  } else {
    Emit("Unknown Message type (" + Shown(type) + ")", envelope);
    ReplyUnknown(envelope);
  }
  return true;
}

// What needs no role comes first: a client that watches others has none.
void Dispatcher::HandleManagement(Envelope& envelope, RouterTable& table) {
  const std::string& type = envelope.Type();
  const auto is = [&](const char* name) { return MatchMessageType(type, "EM", name); };
  std::string line = "EM-";
  std::string replyType;  // empty: no reply
  CORBA::Any data;
  TimeToLive ttl = TimeToLive::Stated(MessageTimeoutSeconds());
  const auto refuse = [&] {
    line += " - Badly formatted message";
    replyType = SystemMessageType("BadMessageFormat");
    data = AsPayload(type);
  };
  const auto subscribe = [&](UpdateNotifier& notifier, const char* name) {
    line += name;
    replyType = ManagementReplyType(name);
    // Better told than subscribed under an address that the configuration would cut, or in
    // another's place under one that nobody has.
    const std::string& subscriber = envelope.Originator();
    if (!LeadsElsewhere(subscriber) || !notifier.SetDestination(subscriber)) refuse();
  };

  if (is("GetClientStatus")) {
    line += "GetClientStatus";
    const std::string name = PayloadAsString(envelope);
    if (name.empty()) {
      refuse();
    } else {
      line += " " + Shown(name);
      replyType = ManagementReplyType("GetClientStatus");
      data = StatusOf(name, table);
    }
  } else if (is("NotifyClientUpdates")) {
    subscribe(routing_.ClientUpdates(), "NotifyClientUpdates");
  } else if (!HasManagementRole(envelope.GetOriginatorCert())) {
    line = "Management message (" + Shown(type) + ") UNAUTHORISED";
  } else if (is("Heartbeat")) {
    line += "Heartbeat";
    replyType = ManagementReplyType("Heartbeat");
    ttl = TimeToLive::Until(envelope.Ttl());
  } else if (is("NotifyRouterUpdates")) {
    subscribe(routing_.RouterUpdates(), "NotifyRouterUpdates");
  } else {
    line = "Management message (" + Shown(type) + ") - unknown,";
    replyType = SystemMessageType("UnknownMessageType");
    data = AsPayload(type);
  }
  Emit(line, envelope);
  if (!replyType.empty()) Reply(envelope, replyType, data, ttl);
}

bool Dispatcher::HandleSystem(Envelope& envelope, RouterTable& table, Logical* logical,
                              const StopTest& stopping) {
  const std::string& type = envelope.Type();
  const auto is = [&](const char* name, const char* suffix = "") {
    return MatchMessageType(type, "MS", name, suffix);
  };
  std::string line = "MS-";
  bool known = true;
  if (!HasRouterRole(envelope.GetOriginatorCert())) {
    line = "System message (" + Shown(type) + ") UNAUTHORISED";
  } else if (is("DeliveryFailed", "*")) {
    line += Shown(type);
  } else if (is("UnknownMessageType", "*")) {
    line += "UnknownMessageType";
  } else if (is("RouterUnregistered")) {
    line += "RouterUnregistered";
    if (!HandleRouterUnregistered(envelope, table, logical, stopping, line)) return false;
  } else if (is("RouterRegistered")) {
    line += "RouterRegistered";
    if (!HandleRouterRegistered(envelope, table, logical, stopping, line)) return false;
  } else {
    line = "System message (" + Shown(type) + ") - not implemented";
    known = false;
  }
  // What has been done is not done again for want of a line.
  Quietly([&] { Emit(line, envelope); });
  if (!known) ReplyUnknown(envelope);
  return true;
}

// What a certification relay has not taken before it got here is no certification that we know.
void Dispatcher::HandleCertification(const Envelope& envelope) {
  Emit("Certification message (" + Shown(envelope.Type()) + ") unknown,", envelope);
  ReplyUnknown(envelope);
}

void Dispatcher::ReplyUnknown(const Envelope& envelope) {
  Reply(envelope, SystemMessageType("UnknownMessageType"), AsPayload(envelope.Type()),
        TimeToLive::Stated(MessageTimeoutSeconds()));
}

void Dispatcher::Reply(const Envelope& envelope, const std::string& type, const CORBA::Any& data,
                       TimeToLive ttl) {
  Send(envelope.Originator(), type, data, envelope.Priority(), ttl);
}

// An address that can't be answered, or a payload that can't be passed on, must not end the thread:
// the message that it came with would do so again after the restart. Where there is no memory that
// message is handled anew, and what has not been told must not count as told.
void Dispatcher::Send(const std::string& destination, const std::string& type,
                      const CORBA::Any& data, std::uint32_t priority, TimeToLive ttl,
                      std::uint32_t messageId) {
  const auto what = [&] { return Shown(type) + " for " + Shown(destination); };
  try {
    routing_.SendLocalMessage(destination, type, data, priority, ttl, messageId);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("Dispatcher::Send", exception, what().c_str());
  } catch (const std::exception& exception) {
    LogCaughtException("Dispatcher::Send", exception, what().c_str());
  }
}

}  // namespace MessageRouter
