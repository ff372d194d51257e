#include "routing/ChildNews.h"

#include <cstddef>
#include <exception>
#include <new>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "envelope/MessageIdGenerator.h"
#include "envelope/MessageType.h"
#include "logging/Log.h"
#include "routing/Logical.h"
#include "routing/NameList.h"
#include "routing/OwnMessage.h"
#include "routing/Passing.h"
#include "routing/Quietly.h"
#include "routing/RouteQueue.h"
#include "routing/RouterTable.h"
#include "routing/Routing.h"

namespace MessageRouter {

namespace {

// Bytes of the names in one message about many, which every router on the way must be able to take.
constexpr std::size_t kNewsSize = std::size_t{4} << 20;
// Between two attempts to tell what is owed.
constexpr std::chrono::seconds kTellingInterval{1};
// Of each attempt; what is to be routed waits.
constexpr std::chrono::milliseconds kTellingTime{200};

// The children of whom the parent has yet to be told.
class OwingChildren : public FunctionClassBase {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override {
    if (entry.OwesNews()) names.push_back(std::move(name));
  }
  std::vector<std::string> names;
};

}  // namespace

bool ChildNews::MakeNews(const std::string& event, const std::vector<const char*>& names,
                         bool asList, std::uint32_t messageId, OwnMessage& news) {
  const std::string type = SystemMessageType(event);
  try {
    CORBA::Any data;
    if (asList) {
      data = AsNameList(names);
    } else {
      data <<= names.front();
    }
    news.envelope.CreateLocal(kParentAddress, 0, TimeToLive::Stated(MessageTimeoutSeconds()), type,
                              data, "", messageId);
    return true;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException("ChildNews::MakeNews", exception, type.c_str()); });
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException("ChildNews::MakeNews", exception, type.c_str()); });
  }
  return false;
}

template <class Telling>
bool ChildNews::TellOrOwe(const std::string& name, Telling&& telling) {
  try {
    telling();
    return true;
  } catch (const std::exception& exception) {
    if (!IsPassing(exception)) throw;
    Quietly([&] { LogCaughtException("ChildNews::TellOrOwe", exception, Shown(name).c_str()); });
    if (RouterTableEntry* const entry = table_.Find(name)) entry->OweNews();
    owed_ = true;
    return false;
  }
}

void ChildNews::AnnounceChild(const std::string& name, bool again, bool tell) {
  TellOrOwe(name, [&] { TellOfChild(name, again, tell); });
}

bool ChildNews::AnnounceEnd(const std::string& name) {
  return TellOrOwe(name, [&] { TellOfEnd(name); });
}

void ChildNews::TakeFromMapIfHere(const std::string& name) {
  const Logical* const map = map_;
  if (map == nullptr) return;
  TellOrOwe(name, [&] {
    // Where it is in no map, which is the rule, nobody has to wait for the lock.
    if (map->Lookup(name).empty()) return;
    const ThreadHelper::Guard guard(mapMutex_);
    if (!guard) throw MapLockFailure();
    if (table_.HasChildRouterHere(name)) LeaveMap(name);
  });
}

void ChildNews::TellIfDue() {
  if (!owed_) return;
  const auto now = Platform::Clock::Instance().SteadyNow();
  if (now < nextTelling_) return;
  nextTelling_ = now + kTellingInterval;
  TellWhatIsOwed(kTellingTime);
}

void ChildNews::TellWhatIsOwed(std::chrono::milliseconds atMost) {
  if (!owed_.exchange(false)) return;
  const auto end = Platform::Clock::Instance().SteadyNow() + atMost;
  OwingChildren owing;
  try {
    if (!table_.Scan(owing)) owed_ = true;
  } catch (const std::bad_alloc&) {
    owed_ = true;
  }
  for (const std::string& name : owing.names) {
    RouterTableEntry* const entry = table_.Find(name);
    if (entry == nullptr || Platform::Clock::Instance().SteadyNow() > end) {
      owed_ = true;
      return;
    }
    if (!entry->OwesNews()) continue;
    const std::uint64_t debt = entry->LastNewsOwed();
    const bool told = TellOrOwe(name, [&] {
      const bool hasParent = table_.Parent() != nullptr;
      if (table_.HasChildRouter(name)) {
        TellOfChild(name, true, hasParent);
      } else if (hasParent) {
        TellOfEnd(name);
      }
    });
    if (!told) return;
    // Not before: the entry could become another peer's, and what could not be told be lost.
    entry->SettleNews(debt);
  }
}

void ChildNews::LeaveMap(const std::string& name) {
  Logical* const map = map_;
  if (map == nullptr) return;
  if (const std::string child = map->Lookup(name); !child.empty()) map->Remove(name, child);
}

// Of a child that is announced again a list goes up, to the top, whoever on the way believes to
// know it already.
void ChildNews::TellOfChild(const std::string& name, bool again, bool tell) {
  const std::uint32_t messageId = tell ? MessageIdGenerator::Instance().NextMessageId() : 0;
  const auto make = [&](OwnMessage& news) {
    return MakeNews("RouterRegistered", {name.c_str()}, again, messageId, news);
  };
  // Made before the lock is taken: it is written to disk.
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

bool ChildNews::IsFurtherDown(const std::string& name) const {
  const Logical* const map = map_;
  return map != nullptr && table_.HasChildRouter(map->Lookup(name));
}

// A name leaves the map after the parent has been told of it: after a crash or a shortage in
// between it is told again.
void ChildNews::TellOfEnd(const std::string& name) {
  Logical* const map = map_;
  std::vector<std::string> keys;
  if (map != nullptr) {
    {
      // Who hears the child may be about to store a name for it. Nobody is from here on.
      const ThreadHelper::Guard guard(mapMutex_);
      if (!guard) throw MapLockFailure();
      if (table_.HasChildRouter(name)) return;
    }
    // A walk over the whole map, for which nobody shall wait: each name is looked at again below.
    map->KeysOf(name, keys);
  }
  bool begun = false;
  std::size_t next = 0;
  do {
    const std::uint32_t messageId = MessageIdGenerator::Instance().NextMessageId();
    const ThreadHelper::Guard guard(mapMutex_);
    if (!guard) throw MapLockFailure();
    // It is back, and has been announced or will be.
    if (table_.HasChildRouter(name)) return;
    std::vector<const char*> names;
    if (!std::exchange(begun, true)) {
      // One that has been hung below another child is still reached through here.
      if (!IsFurtherDown(name)) names.push_back(name.c_str());
    }
    const std::size_t first = next;
    for (std::size_t size = 0; next < keys.size() && size < kNewsSize; ++next) {
      // Another child may have announced it since the lock was let go.
      if (map->Lookup(keys[next]) != name) continue;
      // It is a child of ours by now, and above it leads here.
      if (table_.HasChildRouter(keys[next])) continue;
      names.push_back(keys[next].c_str());
      size += keys[next].size() + sizeof(CORBA::ULong);
    }
    if (OwnMessage news;
        !names.empty() && MakeNews("RouterUnregistered", names, !keys.empty(), messageId, news)) {
      news.Queue(queue_);
      FarewellMade();
    }
    for (std::size_t i = first; i < next; ++i) map->Remove(keys[i], name);
  } while (next < keys.size());
}

}  // namespace MessageRouter
