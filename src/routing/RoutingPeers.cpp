// Registrations, logons and their ends, and what the parent is told of them.
#include <chrono>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "routing/NameList.h"
#include "routing/OwnMessage.h"
#include "routing/Passing.h"
#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {

namespace {

// Bytes of the names in one message about many, which every router on the way must be able to take.
constexpr std::size_t kNewsSize = std::size_t{4} << 20;

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

// The children of whom the parent has yet to be told.
class OwingChildren : public FunctionClassBase {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override {
    if (entry.OwesNews()) names.push_back(std::move(name));
  }
  std::vector<std::string> names;
};

}  // namespace

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
bool Routing::TellOf(const std::string& name, Telling&& telling) {
  try {
    telling();
    return true;
  } catch (const std::exception& exception) {
    if (!IsPassing(exception)) throw;
    Quietly([&] { LogCaughtException("Routing::TellOf", exception, Shown(name).c_str()); });
    if (RouterTableEntry* const entry = table_.Find(name)) entry->OweNews();
    newsOwed_ = true;
    return false;
  }
}

void Routing::TellWhatIsOwed(std::chrono::milliseconds atMost) {
  if (!newsOwed_.exchange(false)) return;
  const auto end = std::chrono::steady_clock::now() + atMost;
  OwingChildren owing;
  try {
    if (!table_.Scan(owing)) newsOwed_ = true;
  } catch (const std::bad_alloc&) {
    newsOwed_ = true;
  }
  for (const std::string& name : owing.names) {
    RouterTableEntry* const entry = table_.Find(name);
    if (entry == nullptr || std::chrono::steady_clock::now() > end) {
      newsOwed_ = true;
      return;
    }
    if (!entry->SettleNews()) continue;
    const bool told = TellOf(name, [&] {
      const bool hasParent = table_.Parent() != nullptr;
      if (table_.HasChildRouter(name)) {
        ChildIsHere(name, true, hasParent);
      } else if (hasParent) {
        ChildIsGone(name);
      }
    });
    if (!told) return;
  }
}

void Routing::IsHere(const std::string& name) {
  const Logical* const logical = logical_;
  // Where it is in no map, which is the rule, nobody has to wait for the lock.
  if (logical == nullptr || logical->Lookup(name).empty()) return;
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
  const bool tells = isRouter && table_.Parent() != nullptr;
  RouterTableEntry* const entry = table_.Find(name);
  // Before it can be another peer's.
  const bool owed = tells && entry != nullptr && entry->OweNews();
  try {
    table_.Unregister(name);
  } catch (...) {
    if (tells && entry != nullptr && !owed) entry->SettleNews();
    throw;
  }
  // Whatever goes wrong with the news, what waited for the peer is routed anew.
  const Drain drain(*this, entry);
  Attempt("Routing::UnregisterPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::UnregisterPeer", name,
          [&] { (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Unregistered(name); });
  if (tells && TellOf(name, [&] { ChildIsGone(name); }) && entry != nullptr) entry->SettleNews();
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
