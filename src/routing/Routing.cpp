#include "routing/Routing.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <exception>
#include <filesystem>
#include <functional>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "envelope/Address.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "platform/Process.h"
#include "routing/OwnMessage.h"
#include "routing/Passing.h"
#include "routing/Quietly.h"

namespace MessageRouter {

namespace {

// Whichever router holds the envelope.
constexpr char kThisRouter[] = ":";

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  const auto same = [](unsigned char left, unsigned char right) {
    return std::tolower(left) == std::tolower(right);
  };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

// For so long a message to this router waits for memory. Where it is so large that the want of
// memory may well be its own doing, it makes room for the others then.
constexpr std::chrono::seconds kShortagePatience{60};
constexpr std::uintmax_t kLargeMessage = 1 << 20;
// How much longer the pause is once it has waited in vain.
constexpr int kPauseFactor = 10;

std::atomic<Routing*> currentCycle{nullptr};

}  // namespace

Routing* Cycle::Current() {
  return currentCycle;
}

void Cycle::Set(Routing* routing) {
  currentCycle = routing;
}

void ReportDeliveryFailure(const Envelope& envelope, const char* reason) {
  const std::string type = envelope.Type();
  if (IsSystemType(type) && ContainsIgnoringCase(type, "DeliveryFailed")) return;
  LogWarning("Delivery failed(%s) for message type %s, originator %s", reason, Shown(type).c_str(),
             Shown(envelope.Originator()).c_str());
}

Routing::Routing(RoutingHost& host, RouterTable& table) : host_(host), table_(table) {
  table_.SetReroute([this](Envelope envelope) { QueueForRouting(std::move(envelope)); });
  table_.SetLoggedOffNotice([this](const std::string& name, bool isRouter) {
    (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Logoff(name);
  });
}

Routing::~Routing() {
  table_.SetReroute(nullptr);
  table_.SetLoggedOffNotice(nullptr);
}

void Routing::SetLogical(std::unique_ptr<Logical> logical) {
  logical_ = logical.get();
  logicalOwner_ = std::move(logical);
}

void Routing::QueueForRouting(Envelope envelope) {
  queue_.Append(std::move(envelope));
}

bool Routing::CancelInRouteQueue(const std::string& originator, std::uint32_t messageId) {
  Envelope cancelled;
  if (!queue_.TakeMatching(originator, messageId, cancelled)) return false;
  cancelled.Retire();
  return true;
}

void Routing::EmptyRouteQueue() {
  queue_.Empty();
}

std::size_t Routing::RouteQueueSize() const {
  return queue_.Size();
}

RouterTableEntry* Routing::FindRoute(const std::string& name) {
  std::string reachedAs;
  return FindRoute(name, reachedAs);
}

RouterTableEntry* Routing::FindRoute(const std::string& name, std::string& reachedAs) {
  // No peer takes this name, whatever its certificate or a child's news says: what is for the
  // parent would go there.
  if (name == kThisRouter) return nullptr;
  RouterTableEntry* entry = table_.Find(name);
  if (entry != nullptr && entry->IsRoutable()) {
    reachedAs = name;
    return entry;
  }
  const Logical* const logical = logical_;
  if (logical == nullptr) return nullptr;
  reachedAs = logical->Lookup(name);
  if (reachedAs.empty()) return nullptr;
  entry = table_.Find(reachedAs);
  // A client that has come under a former child's name is not on the way to anything.
  return entry != nullptr && entry->IsRoutable() && entry->IsRouter() ? entry : nullptr;
}

bool Routing::IsWaiting(const Envelope& envelope) const {
  return shortage_ && shortage_->messageId == envelope.MessageId() &&
         shortage_->originator == std::hash<std::string>()(envelope.Originator());
}

bool Routing::SetAsideIfHopeless(Envelope& envelope) {
  if (Platform::Clock::Instance().SteadyNow() - shortage_->since < kShortagePatience) return false;
  try {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(envelope.FileName(), error);
    if (error || size < kLargeMessage) return false;
    LogError("A message to this router is too large to be looked into and is set aside: %s\n",
             envelope.Describe().c_str());
    envelope.MarkInvalid();
  } catch (const std::bad_alloc&) {
    return false;
  }
  shortage_.reset();
  return true;
}

void Routing::Handle(Envelope& envelope, std::chrono::milliseconds pause,
                     const StopTest& stopping) {
  // Again and again its lines would push all others out of the log.
  const bool again = IsWaiting(envelope);
  bool done = false;
  try {
    if (!again) LogInfo("Received message for this router\n");
    done = dispatcher_.DispatchLocal(envelope, table_, logical_, stopping);
  } catch (const std::exception& exception) {
    if (!IsPassing(exception)) throw;
    if (!again) {
      shortage_ = {envelope.MessageId(), std::hash<std::string>()(envelope.Originator()),
                   Platform::Clock::Instance().SteadyNow()};
      Quietly([&] { LogCaughtException("Routing::RouteNext", exception, ""); });
    }
    const bool noMemory = dynamic_cast<const std::bad_alloc*>(&exception) != nullptr;
    if (noMemory && SetAsideIfHopeless(envelope)) return;
    // What is done already is not done twice, and none may overtake another's news.
    queue_.PutBack(std::move(envelope));
    Platform::SleepMilliseconds(
        static_cast<unsigned>((again ? kPauseFactor * pause : pause).count()));
    return;
  }
  shortage_.reset();
  if (done) envelope.Retire();
}

void Routing::RouteNext(unsigned seconds, unsigned milliseconds, const StopTest& stopping) {
  news_.TellIfDue();
  Envelope envelope;
  if (!queue_.Take(seconds, milliseconds, envelope)) return;

  std::string hop = envelope.NextHop();
  // Of an envelope whose peer is gone, and which is decided anew, the hop that named this router
  // has been taken already.
  bool local = envelope.HopPopped();
  if (!local && IsThisRouter(hop)) {
    if (envelope.HopCount() < 2) {
      Handle(envelope, std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds),
             stopping);
      return;
    }
    local = true;
    envelope.PopHop();
    hop = envelope.NextHop();
  }

  std::string reachedAs;
  RouterTableEntry* entry = FindRoute(hop, reachedAs);
  // Nothing that came down is sent back up, whatever the map says, and an address that named this
  // router and then an unknown name is not guessed at.
  const bool byItsName = reachedAs == hop && !hop.empty();
  if (entry != nullptr && entry->IsParent() && envelope.FromParent() && !byItsName) entry = nullptr;
  if (entry == nullptr && !envelope.FromParent() && (!local || hop == kThisRouter)) {
    entry = table_.Parent();
  }
  if (entry == nullptr) {
    LogWarning("Cannot route message to %s\n", hop.empty() ? "nowhere" : Shown(hop).c_str());
    ReportDeliveryFailure(envelope, "Unrouteable");
    envelope.Retire();
    return;
  }

  // The parent answers to several names; any other entry that no longer bears the name under which
  // it was found has become another peer's.
  if (entry->IsParent()) reachedAs = entry->Name();
  if (LogEnabled(kLogInfo)) {
    const std::string shown = entry->IsParent() ? "parent" : reachedAs;
    LogInfo("Routing to %s: %s\n", ShownName(shown).c_str(), envelope.Describe().c_str());
  }
  bool senderAtWork = false;
  if (!entry->TryEnqueue(envelope, reachedAs, senderAtWork)) {
    // Gone since it was found.
    queue_.Append(std::move(envelope));
    return;
  }
  if (!senderAtWork || host_.CountsBusyOffers()) host_.OfferToSenders(*entry);
}

void Routing::SendLocalMessage(const std::string& destination, const std::string& type,
                               const CORBA::Any& data, std::uint32_t priority, TimeToLive ttl,
                               std::uint32_t messageId) {
  OwnMessage message;
  message.envelope.CreateLocal(destination, priority, ttl, type, data, "", messageId);
  message.Queue(queue_);
}

}  // namespace MessageRouter
