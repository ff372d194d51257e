#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "threads/Mutex.h"

namespace MessageRouter {

class Logical;
class OwnMessage;
class RouteQueue;
class RouterTable;

// What the parent is told of the children of this router, in one step with what the map says of
// them. News for which there is no memory, or no lock, is owed and told later: nothing here throws
// for want of either.
// Threads: any, TellIfDue excepted, which belongs to the route thread.
class ChildNews {
 public:
  // `map` is the map of routers further down, or null. News goes out through `queue`.
  ChildNews(RouterTable& table, RouteQueue& queue, const std::atomic<Logical*>& map)
      : table_(table), queue_(queue), map_(map) {}
  ChildNews(const ChildNews&) = delete;
  ChildNews& operator=(const ChildNews&) = delete;

  // Held while the map is changed together with what is told of that: whoever has taken a name from
  // the map must have told so before another one's announcement of the name.
  // Lock order: before the table's lock and all leaves; envelopes are written beneath it.
  ThreadHelper::Mutex& MapMutex() { return mapMutex_; }
  // To be called after each message that a router has gone, before MapMutex is let go.
  void FarewellMade() { ++farewells_; }

  // Of a registered child router, which leaves the map. `again`: it was registered already.
  // `tell`: there was a parent before the table was changed; none is found in a table that has
  // closed since.
  void AnnounceChild(const std::string& name, bool again, bool tell);
  // Of a child that is registered no more, and of all that led through it. False if it is owed.
  bool AnnounceEnd(const std::string& name);
  // Of a router that may be logged on here: the map leads to it no more. Where that is owed, the
  // child is announced once more when it is done.
  void TakeFromMapIfHere(const std::string& name);

  // Tells the parent of the children of whom there was no memory to tell it, for that long at most,
  // and no further than to the next one for whom there is none. For a stop, once the route thread
  // has ended.
  void TellWhatIsOwed(std::chrono::milliseconds atMost);
  // The route thread's part of that: now and then, and never for long.
  void TellIfDue();

 private:
  // A message for the parent about these names, under an id that was drawn for it: whoever holds
  // the lock must not wait for one. What can never be told is logged, and false.
  static bool MakeNews(const std::string& event, const std::vector<const char*>& names, bool asList,
                       std::uint32_t messageId, OwnMessage& news);
  // Where these throw they can be done again.
  void TellOfChild(const std::string& name, bool again, bool tell);
  void TellOfEnd(const std::string& name);
  // Does one of these. False where there is no memory for it: it is owed.
  template <class Telling>
  bool TellOrOwe(const std::string& name, Telling&& telling);
  void LeaveMap(const std::string& name) REQUIRES(mapMutex_);
  // Whether the map leads to it through a child of ours.
  bool IsFurtherDown(const std::string& name) const;

  RouterTable& table_;
  RouteQueue& queue_;
  const std::atomic<Logical*>& map_;
  ThreadHelper::Mutex mapMutex_;
  std::atomic<std::uint64_t> farewells_{0};
  std::atomic<bool> owed_{false};
  Platform::Clock::SteadyTime nextTelling_{};  // the route thread's
};

}  // namespace MessageRouter
