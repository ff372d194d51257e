#include "client_library/Query.h"

#include <thread>

#include "client_library/Failure.h"
#include "platform/Clock.h"

namespace ClientLibrary {
namespace {

constexpr char kThisRouter[] = ":";
constexpr char kUnknownType[] = "MS-UnknownMessageType";
constexpr char kBadFormat[] = "MS-BadMessageFormat";
// Priorities are compared as unsigned numbers.
constexpr CORBA::Long kHighest = -1;
constexpr std::chrono::milliseconds kPause{50};

// Whether the payload is of that name; one that is of nobody may be.
bool IsAbout(const CORBA::Any& payload, const std::string& name) {
  const BrelixMessaging::RouterClient* status = nullptr;
  return !(payload >>= status) || name == status->name.in();
}

}  // namespace

Query Query::ClientStatus(const std::string& name) {
  return {"EM-GetClientStatus", name};
}

Query Query::Heartbeat() {
  return {"EM-Heartbeat", ""};
}

Query Query::ClientUpdates() {
  return {"EM-NotifyClientUpdates", ""};
}

Query Query::RouterUpdates() {
  return {"EM-NotifyRouterUpdates", ""};
}

BrelixMessaging::Message AsMessage(const Query& query, std::chrono::milliseconds limit) {
  BrelixMessaging::Message message;
  message.destination = kThisRouter;
  message.prio = kHighest;
  message.ttl = 1 + static_cast<CORBA::Long>(limit.count() / 1000);
  message.type = query.type.c_str();
  message.custom_data <<= query.name.c_str();
  return message;
}

bool IsRefusal(const BrelixMessaging::Envelope& answer) {
  const std::string type = answer.client_info.type.in();
  return type == kUnknownType || type == kBadFormat;
}

bool IsAnswer(const BrelixMessaging::Envelope& envelope, const Query& query,
              const std::string& router) {
  if (router != envelope.originator.in()) return false;
  const CORBA::Any& payload = envelope.client_info.custom_data;
  if (IsRefusal(envelope)) {
    const char* type = nullptr;
    return (payload >>= type) && query.type == type;
  }
  return envelope.client_info.type.in() == query.type + "-Reply" && IsAbout(payload, query.name);
}

std::unique_ptr<BrelixMessaging::Envelope> Ask(RouterConnection& router, const Query& query,
                                               std::chrono::milliseconds limit) {
  const auto& clock = Platform::Clock::Instance();
  const auto end = clock.SteadyNow() + limit;
  const std::string name = router.RouterName();
  const auto fetch = [&] {
    std::unique_ptr<BrelixMessaging::Envelope> envelope = router.Get();
    if (envelope != nullptr && !IsAnswer(*envelope, query, name)) envelope = nullptr;
    if (envelope != nullptr) router.Acknowledge(*envelope);
    return envelope;
  };
  router.LogonPull();
  while (fetch() != nullptr) {
  }
  router.Send(AsMessage(query, limit));
  while (true) {
    if (auto answer = fetch()) return answer;
    if (clock.SteadyNow() >= end) break;
    std::this_thread::sleep_for(kPause);
  }
  router.Logoff();
  throw Failure(Outcome::TimedOut, "no answer to " + query.type +
                                       " in time; the router answers some questions only to who "
                                       "has the management role");
}

}  // namespace ClientLibrary
