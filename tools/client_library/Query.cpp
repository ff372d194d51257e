#include "client_library/Query.h"

#include <random>
#include <string_view>
#include <thread>

#include "broker/TakeOut.h"
#include "client_library/Failure.h"
#include "platform/Clock.h"

namespace ClientLibrary {
namespace {

constexpr char kThisRouter[] = ":";
constexpr char kUnknownType[] = "MS-UnknownMessageType";
constexpr char kBadFormat[] = "MS-BadMessageFormat";
constexpr std::string_view kManagement = "EM-";
constexpr std::string_view kReply = "-Reply";
constexpr std::chrono::milliseconds kPause{50};

// Whether the payload is of that name; one that is of nobody may be.
bool IsAbout(const CORBA::Any& payload, const std::string& name) {
  const BrelixMessaging::RouterClient* status = nullptr;
  return !Broker::TakeOut(payload, status) || name == status->name.in();
}

std::uint32_t PriorityOf(const BrelixMessaging::Envelope& envelope) {
  return static_cast<std::uint32_t>(envelope.client_info.prio);
}

std::uint32_t DrawPriority() {
  std::random_device random;
  return Query::kLowestPriority | random();
}

void LogOffQuietly(FetchingClient& router) {
  try {
    router.Logoff();
  } catch (const Failure&) {
    // What the caller is told is that no answer came.
  }
}

}  // namespace

Query Query::ClientStatus(const std::string& name) {
  return {"EM-GetClientStatus", name, DrawPriority()};
}

Query Query::Heartbeat() {
  return {"EM-Heartbeat", "", DrawPriority()};
}

Query Query::ClientUpdates() {
  return {"EM-NotifyClientUpdates", "", DrawPriority()};
}

Query Query::RouterUpdates() {
  return {"EM-NotifyRouterUpdates", "", DrawPriority()};
}

BrelixMessaging::Message AsMessage(const Query& query, std::chrono::milliseconds limit) {
  BrelixMessaging::Message message;
  message.destination = kThisRouter;
  message.prio = static_cast<CORBA::Long>(query.priority);
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
  if (router != envelope.originator.in() || PriorityOf(envelope) != query.priority) return false;
  const CORBA::Any& payload = envelope.client_info.custom_data;
  if (IsRefusal(envelope)) {
    const char* type = nullptr;
    return Broker::TakeOut(payload, type) && query.type == type;
  }
  return envelope.client_info.type.in() == query.type + "-Reply" && IsAbout(payload, query.name);
}

bool IsAnyAnswer(const BrelixMessaging::Envelope& envelope, const std::string& router) {
  if (router != envelope.originator.in()) return false;
  if (PriorityOf(envelope) < Query::kLowestPriority) return false;
  const std::string_view type = envelope.client_info.type.in();
  return IsRefusal(envelope) || (type.starts_with(kManagement) && type.ends_with(kReply));
}

std::unique_ptr<BrelixMessaging::Envelope> Ask(FetchingClient& router, const Query& query,
                                               std::chrono::milliseconds limit) {
  const auto& clock = Platform::Clock::Instance();
  const auto end = clock.SteadyNow() + limit;
  const std::string name = router.RouterName();
  router.LogonPull(nullptr);
  router.Send(AsMessage(query, limit));
  while (true) {
    auto envelope = router.Get();
    // Only the first envelope can be seen: a late answer that stayed there would hide all others.
    const bool taken = envelope != nullptr && IsAnyAnswer(*envelope, name);
    if (taken) router.Acknowledge(*envelope);
    if (taken && IsAnswer(*envelope, query, name)) return envelope;
    if (clock.SteadyNow() >= end) break;
    if (!taken) std::this_thread::sleep_for(kPause);
  }
  LogOffQuietly(router);
  throw Failure(Outcome::TimedOut, "no answer to " + query.type +
                                       " in time; the router answers some questions only to who "
                                       "has the management role");
}

}  // namespace ClientLibrary
