#include "routing/UpdateNotifier.h"

#include <exception>

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "routing/Passing.h"
#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {

UpdateNotifier::UpdateNotifier(Routing& routing, bool isRouters)
    : isRouters_(isRouters),
      configKey_(isRouters ? "NotifyRouterUpdate" : "NotifyClientUpdate"),
      ttl_(MessageTimeoutSeconds()),
      routing_(routing) {
  const std::string destination = GetConfigString(configKey_.c_str(), "", kMaxDestination);
  const ThreadHelper::Guard guard(mutex_);
  if (guard) destination_ = destination;
}

bool UpdateNotifier::SetDestination(const std::string& destination) {
  if (destination.size() > kMaxDestination) {
    LogError("The address of a subscriber has %zu characters, which is too many\n",
             destination.size());
    return false;
  }
  {
    const ThreadHelper::Guard guard(mutex_);
    if (!guard) throw SubscriberLockFailure();
    destination_ = destination;
  }
  // Anybody may ask for this as often as he likes, and each write goes onto stable storage.
  if (GetConfigString(configKey_.c_str(), "", kMaxDestination) == destination) return true;
  SetConfigString(configKey_.c_str(), destination);
  SaveConfiguration();
  return true;
}

void UpdateNotifier::Registered(const std::string& name) {
  Send(isRouters_ ? "RouterRegistered" : "ClientRegistered", name);
}

void UpdateNotifier::Unregistered(const std::string& name) {
  Send(isRouters_ ? "RouterUnregistered" : "ClientUnregistered", name);
}

void UpdateNotifier::Logon(const std::string& name) {
  Send(isRouters_ ? "RouterLogon" : "ClientLogon", name);
}

void UpdateNotifier::Logoff(const std::string& name) {
  Send(isRouters_ ? "RouterLogoff" : "ClientLogoff", name);
}

std::string UpdateNotifier::Destination() const {
  const ThreadHelper::Guard guard(mutex_);
  return guard ? destination_ : std::string();
}

void UpdateNotifier::Send(const char* event, const std::string& name) {
  try {
    const std::string destination = Destination();
    if (destination.empty()) return;
    CORBA::Any data;
    data <<= name.c_str();
    routing_.SendLocalMessage(destination, ManagementMessageType(event), data, priority_,
                              TimeToLive::Stated(ttl_));
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException("UpdateNotifier::Send", exception, ""); });
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException("UpdateNotifier::Send", exception, ""); });
  }
}

}  // namespace MessageRouter
