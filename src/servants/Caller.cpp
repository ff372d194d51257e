#include "servants/Caller.h"

#include <exception>
#include <utility>

#include "security/CertificateContext.h"

namespace RouterServants {

using MessageRouter::Cycle;
using MessageRouter::RouterTableEntry;
using MessageRouter::Routing;

Routing& RunningRouting() {
  Routing* routing = Cycle::Current();
  if (routing == nullptr) throw BrelixMessaging::Rejected();
  return *routing;
}

std::string CallerName() {
  return MessageRouter::CertificateContext::instance().GetPeerCommonName();
}

std::optional<std::string> CallerNameIfAny() {
  try {
    return CallerName();
  } catch (const BrelixMessaging::Rejected&) {
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

Caller Caller::LoggedOn() {
  std::string name = CallerName();
  Routing& routing = RunningRouting();
  RouterTableEntry* entry = routing.Table().Find(name);
  const auto standing = entry == nullptr ? std::nullopt : entry->StandingOf(name);
  if (!standing) throw BrelixMessaging::Rejected();
  if (!standing->loggedOn) throw BrelixMessaging::NotLoggedOn();
  return {routing, *entry, std::move(name), standing->isRouter};
}

RouterTableEntry* FindEntry(const std::string& name) {
  Routing* routing = Cycle::Current();
  return routing == nullptr ? nullptr : routing->Table().Find(name);
}

}  // namespace RouterServants
