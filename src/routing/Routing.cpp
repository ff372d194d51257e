#include "routing/Routing.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <exception>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "platform/Process.h"
#include "routing/NameList.h"
#include "routing/Quietly.h"

namespace MessageRouter {

namespace {

// Whichever router holds the envelope.
constexpr char kThisRouter[] = ":";

// Bytes of the names in one message about many, which every router on the way must be able to take.
constexpr std::size_t kNewsSize = std::size_t{4} << 20;

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  const auto same = [](unsigned char left, unsigned char right) {
    return std::tolower(left) == std::tolower(right);
  };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

// False, logged, if that fails. What it follows from has been done, and stays done.
template <class Work>
bool Attempt(const char* where, const std::string& what, Work&& work) {
  try {
    work();
    return true;
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException(where, exception, what.c_str()); });
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException(where, exception, what.c_str()); });
  }
  return false;
}

// Whether what it ended may well succeed at another moment.
bool IsPassing(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) != nullptr ||
         dynamic_cast<const PassingShortage*>(&exception) != nullptr ||
         dynamic_cast<const MapLockFailure*>(&exception) != nullptr;
}

// Between two attempts to tell what is owed.
constexpr std::chrono::seconds kTellingInterval{1};

// The children of whom the parent has yet to be told.
class OwingChildren : public FunctionClassBase {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override {
    if (entry.OwesNews()) names.push_back(std::move(name));
  }
  std::vector<std::string> names;
};

std::atomic<Routing*> currentCycle{nullptr};

}  // namespace

// A message of the router itself. Unless it is queued it goes, with its file.
class Routing::OwnMessage {
 public:
  OwnMessage() = default;
  ~OwnMessage() {
    if (!queued_) Quietly([this] { envelope.Retire(); });
  }
  OwnMessage(const OwnMessage&) = delete;
  OwnMessage& operator=(const OwnMessage&) = delete;

  void Queue(RouteQueue& queue) {
    queue.Append(std::move(envelope));
    queued_ = true;
  }

  Envelope envelope;

 private:
  bool queued_ = false;
};

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

void Routing::RouteNext(unsigned seconds, unsigned milliseconds, const StopTest& stopping) {
  if (newsOwed_) {
    const auto now = Platform::Clock::Instance().SteadyNow();
    if (now >= nextTelling_) {
      nextTelling_ = now + kTellingInterval;
      TellWhatIsOwed();
    }
  }
  Envelope envelope;
  if (!queue_.Take(seconds, milliseconds, envelope)) return;

  std::string hop = envelope.NextHop();
  // Of an envelope whose peer is gone, and which is decided anew, the hop that named this router
  // has been taken already.
  bool local = envelope.HopPopped();
  if (!local && IsThisRouter(hop)) {
    if (envelope.HopCount() < 2) {
      try {
        LogInfo("Received message for this router\n");
        if (dispatcher_.DispatchLocal(envelope, table_, logical_, stopping)) envelope.Retire();
      } catch (const std::exception& exception) {
        if (!IsPassing(exception)) throw;
        // Nothing has been done about it that can't be done again, and none may overtake another's
        // news.
        Quietly([&] { LogCaughtException("Routing::RouteNext", exception, ""); });
        queue_.PutBack(std::move(envelope));
        Platform::SleepMilliseconds(1000 * seconds + milliseconds);
      }
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
    LogInfo("Routing to %s: %s\n", Shown(ToDisplayString(shown)).c_str(),
            envelope.Describe().c_str());
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
                               const CORBA::Any& data, std::uint32_t priority, TimeToLive ttl) {
  OwnMessage message;
  message.envelope.CreateLocal(destination, priority, ttl, type, data, "");
  message.Queue(queue_);
}

bool Routing::MakeNews(const std::string& event, const std::vector<const char*>& names, bool asList,
                       OwnMessage& news) {
  const std::string type = SystemMessageType(event);
  bool isShort = false;
  const bool made = Attempt("Routing::MakeNews", type, [&] {
    try {
      CORBA::Any data;
      if (asList) {
        data = AsNameList(names);
      } else {
        data <<= names.front();
      }
      news.envelope.CreateLocal(kParentAddress, 0, TimeToLive::Stated(MessageTimeoutSeconds()),
                                type, data, "");
    } catch (const std::bad_alloc&) {
      isShort = true;
    }
  });
  if (isShort) throw std::bad_alloc();
  return made;
}

template <class Telling>
void Routing::TellOf(const std::string& name, Telling&& telling) {
  try {
    telling();
  } catch (const std::exception& exception) {
    if (!IsPassing(exception)) throw;
    Quietly([&] { LogCaughtException("Routing::TellOf", exception, Shown(name).c_str()); });
    RouterTableEntry* const entry = table_.Find(name);
    if (entry == nullptr) return;
    entry->OweNews();
    newsOwed_ = true;
  }
}

void Routing::TellWhatIsOwed() {
  if (!newsOwed_.exchange(false)) return;
  OwingChildren owing;
  try {
    table_.Scan(owing);
  } catch (const std::bad_alloc&) {
    newsOwed_ = true;
  }
  for (const std::string& name : owing.names) {
    RouterTableEntry* const entry = table_.Find(name);
    if (entry == nullptr || !entry->SettleNews()) continue;
    TellOf(name, [&] {
      if (table_.HasChildRouter(name)) {
        ChildIsHere(name, true, table_.Parent() != nullptr);
      } else {
        ChildIsGone(name);
      }
    });
  }
}

void Routing::IsHere(const std::string& name) {
  if (logical_ == nullptr) return;
  const ThreadHelper::Guard guard(mapMutex_);
  if (!guard) throw MapLockFailure();
  if (table_.HasChildRouterHere(name)) LeaveMap(name);
}

void Routing::LeaveMap(const std::string& name) {
  Logical* const logical = logical_;
  if (logical == nullptr) return;
  if (const std::string child = logical->Lookup(name); !child.empty()) {
    logical->Remove(name, child);
  }
}

// Of a child that is announced again a list goes up, to the top, whoever on the way believes to
// know it already.
void Routing::ChildIsHere(const std::string& name, bool again, bool tell) {
  const auto make = [&](OwnMessage& news) {
    return MakeNews("RouterRegistered", {name.c_str()}, again, news);
  };
  // Made before the lock is taken: its id can take a moment, and it is written to disk.
  const std::uint64_t farewells = farewells_;
  OwnMessage news;
  if (tell) tell = make(news);
  const ThreadHelper::Guard guard(mapMutex_);
  if (!guard) throw MapLockFailure();
  if (!table_.HasChildRouter(name)) return;
  // After a restart the order of the files is that of the news: a farewell that was made meanwhile
  // may be this one's, and must not come after it.
  if (OwnMessage later; tell && farewells != farewells_ && make(later)) {
    // On disk counts more than in order.
    if (!later.envelope.FileName().empty() || news.envelope.FileName().empty()) {
      std::swap(news.envelope, later.envelope);
    }
  }
  // Its former way here would take it along when it ends.
  LeaveMap(name);
  if (tell) news.Queue(queue_);
}

void Routing::RegisterPeer(const std::string& name, bool isRouter) {
  if (!isRouter && table_.IsParentsName(name)) throw BrelixMessaging::AlreadyRegistered();
  const bool hasParent = table_.Parent() != nullptr;
  try {
    table_.Register(name, isRouter);
  } catch (const BrelixMessaging::AlreadyRegistered&) {
    TellOf(name, [&] {
      if (isRouter && table_.HasChildRouter(name)) ChildIsHere(name, true, hasParent);
    });
    throw;
  }
  Attempt("Routing::RegisterPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::RegisterPeer", name,
          [&] { (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Registered(name); });
  if (isRouter) TellOf(name, [&] { ChildIsHere(name, false, hasParent); });
}

Routing::Drain::~Drain() {
  if (entry_ == nullptr) return;
  // What finds no memory waits on disk for the next cycle.
  Quietly([this] {
    Envelope waiting;
    while (entry_->PopUnroutable(waiting)) routing_.QueueForRouting(std::move(waiting));
  });
}

bool Routing::IsFurtherDown(const std::string& name) const {
  const Logical* const logical = logical_;
  return logical != nullptr && table_.HasChildRouter(logical->Lookup(name));
}

// A name leaves the map after the parent has been told of it: after a crash or a shortage in
// between it is told again.
void Routing::ChildIsGone(const std::string& name) {
  Logical* const logical = logical_;
  std::vector<std::string> keys;
  bool begun = false;
  std::size_t next = 0;
  do {
    const ThreadHelper::Guard guard(mapMutex_);
    if (!guard) throw MapLockFailure();
    // It is back, and has been announced or will be.
    if (table_.HasChildRouter(name)) return;
    std::vector<const char*> names;
    if (!std::exchange(begun, true)) {
      if (logical != nullptr) logical->KeysOf(name, keys);
      // One that has been hung below another child is still reached through here.
      if (!IsFurtherDown(name)) names.push_back(name.c_str());
    }
    const std::size_t first = next;
    for (std::size_t size = 0; next < keys.size() && size < kNewsSize; ++next) {
      // Another child may have announced it since the lock was let go.
      if (logical->Lookup(keys[next]) != name) continue;
      // It is a child of ours by now, and above it leads here.
      if (table_.HasChildRouter(keys[next])) continue;
      names.push_back(keys[next].c_str());
      size += keys[next].size() + sizeof(CORBA::ULong);
    }
    if (OwnMessage news;
        !names.empty() && MakeNews("RouterUnregistered", names, !keys.empty(), news)) {
      news.Queue(queue_);
      FarewellMade();
    }
    for (std::size_t i = first; i < next; ++i) logical->Remove(keys[i], name);
  } while (next < keys.size());
}

void Routing::UnregisterPeer(const std::string& name, bool isRouter) {
  if (!isRouter && table_.IsParentsName(name)) throw BrelixMessaging::NotRegistered();
  const bool hasParent = table_.Parent() != nullptr;
  table_.Unregister(name);
  // Whatever goes wrong with the news, what waited for the peer is routed anew.
  const Drain drain(*this, table_.Find(name));
  Attempt("Routing::UnregisterPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::UnregisterPeer", name,
          [&] { (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Unregistered(name); });
  if (isRouter && hasParent) TellOf(name, [&] { ChildIsGone(name); });
}

RouterTableEntry& Routing::FindForLogon(const std::string& name) {
  RouterTableEntry* const entry = table_.Find(name);
  if (entry == nullptr) throw BrelixMessaging::NotRegistered();
  return *entry;
}

RouterTableEntry::LocalPeerObjects Routing::LogonClientPeer(
    const std::string& name, BrelixMessaging::EnvelopeConsumer_ptr consumer,
    BrelixMessaging::NotifyConsumer_ptr notify, std::int32_t threshold) {
  RouterTableEntry& entry = FindForLogon(name);
  const auto activated = entry.LogonClient(name, consumer, notify, threshold, true);
  Attempt("Routing::LogonClientPeer", name, [&] { table_.WriteTable(false); });
  OfferForDelivery(entry);
  clientUpdateNotifier_.Logon(name);
  return activated;
}

RouterTableEntry::LocalPeerObjects Routing::LogonRouterPeer(
    const std::string& name, BrelixMessaging::RouterConsumer_ptr consumer,
    BrelixMessaging::RouterSupplier_ptr supplier, BrelixMessaging::NotifyConsumer_ptr notify,
    std::int32_t threshold) {
  RouterTableEntry& entry = FindForLogon(name);
  const auto activated = entry.LogonRouter(name, consumer, supplier, notify, threshold, true);
  Attempt("Routing::LogonRouterPeer", name, [&] { table_.WriteTable(false); });
  // Late news of its former way here would keep its end from being told.
  Attempt("Routing::LogonRouterPeer", name, [&] { IsHere(name); });
  host_.NotifiedPoll(entry);
  OfferForDelivery(entry);
  routerUpdateNotifier_.Logon(name);
  return activated;
}

void Routing::LogoffPeer(const std::string& name) {
  FindForLogon(name).Logoff(name);
}

void Routing::OfferForDelivery(RouterTableEntry& entry) {
  if (entry.HasNotifyConsumer() && entry.GetConsumerState() == RouterTableEntry::kNothingSent) {
    host_.OfferToThreshold(entry);
  } else {
    host_.OfferToSenders(entry);
  }
}

}  // namespace MessageRouter
