// How the parent logon finds its parent and registers with it.
#include <algorithm>
#include <string_view>

#include "broker/ConnectionTest.h"
#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "parent/HostResolver.h"
#include "parent/IorParser.h"
#include "parent/ParentCallLimit.h"
#include "parent/ParentLogon.h"
#include "platform/Text.h"

namespace MessageRouter {

using Broker::RepeatOnce;

namespace {

constexpr std::size_t kLongestName = 4096;
// The table keeps each of them to the end of the cycle.
constexpr unsigned kMostNames = 20;

// The text comes from whoever answers at the port: it must not make lines of its own in the log.
std::string OnOneLine(std::string text) {
  std::replace_if(text.begin(), text.end(), Platform::IsControl, '?');
  return text;
}

// ":" is every router's name for itself.
bool CanBeAName(std::string_view text) {
  return text.size() <= kLongestName && text != ":" &&
         std::none_of(text.begin(), text.end(), Platform::IsControl);
}

}  // namespace

void ParentLogon::EnsureRegistered() {
  if (IsRegistered()) {
    bool valid = false;
    try {
      const ParentCallLimit limit = ParentCallLimit::AtLeast(0, second_);
      valid = RepeatOnce([this] { return Broker::HasValidConnection(parentRouter_); });
    } catch (const CORBA::Exception&) {
      // As good as no.
    }
    if (!valid) {
      LogDebug("Failed to validate connection to parent router\n");
      ForgetParent();
    }
  }
  if (!IsRegistered()) RegisterParent();
}

void ParentLogon::RegisterParent() {
  StatusReporting::StatusReporter& status = host_.Status();
  const std::string ior = GetParentIOR({&status, [this] { return IsTerminated(); }});
  if (ior.empty()) return;
  LogInfo("Received parent router's IOR:\n%s\n", OnOneLine(ior).c_str());
  using StatusReporting::OutgoingSection;
  const bool valid = ValidateIor(ior, [this](const std::string& host, std::uint16_t port) {
    // A stop does not wait for the name service.
    return IsTerminated() ? ACE_INET_Addr(port, INADDR_ANY) : ResolveHost(host, port);
  });
  if (IsTerminated()) return;
  if (!valid) {
    LogError("Cannot log on to the parent router, because its IOR is invalid\n");
    status.SetActualParent("");
    status.Outgoing().Raise(OutgoingSection::kParentIorInvalid, "");
    return;
  }
  status.Outgoing().Clear(OutgoingSection::kParentIorInvalid);
  LogInfo("Successfully validated parent router's IOR\n");
  host_.SetParentAddresses(ior);
  try {
    const ParentCallLimit limit = ParentCallLimit::AtLeast(0, second_);
    Introduce(ior);
  } catch (const CORBA::Exception& exception) {
    ForgetParent();
    LogCaughtCorbaException("ParentLogon::RegisterParent", exception, "");
  }
}

void ParentLogon::Introduce(const std::string& ior) {
  const CORBA::Object_var object =
      Broker::OutgoingCall([&] { return routing_.Host().StringToObject(ior); });
  const BrelixMessaging::MessageRouter_var root =
      RepeatOnce([&] { return BrelixMessaging::MessageRouter::_narrow(object); });
  if (CORBA::is_nil(root)) return;
  LogInfo("Accessing parent\n");
  const CORBA::String_var name = RepeatOnce([&] { return root->GetName(); });
  if (!LearnName(name.in())) return;

  const BrelixMessaging::Router_var door = RepeatOnce([&] { return root->GetRouter(); });
  if (CORBA::is_nil(door)) return;
  try {
    RepeatOnce([&] { door->Register(); });
    LogInfo("Registered with parent router\n");
  } catch (const BrelixMessaging::AlreadyRegistered&) {
    // A router that restarts is still known.
    LogDebug("Already registered with parent router\n");
  }
  parentRouter_ = BrelixMessaging::Router::_duplicate(door);
}

bool ParentLogon::LearnName(const std::string& name) {
  LogInfo("Parent is %s\n", ShownName(name).c_str());
  RouterTable& table = routing_.Table();
  const bool isNew = table.Find(name) != table.Parent();
  if (!CanBeAName(name) || (isNew && names_ == kMostNames)) {
    LogError("Cannot register with the parent router, because of its name\n");
    return false;
  }
  if (isNew) ++names_;
  table.SetParentName(name);
  return true;
}

}  // namespace MessageRouter
