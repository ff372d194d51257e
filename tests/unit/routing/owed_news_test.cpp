// The parent hears of the children of this router however little memory there is, and the map says
// what the parent has been told.
#include <new>

#include "config/Configuration.h"
#include "dispatcher_fixture.h"
#include "support/AllocationFailure.h"
#include "support/NoDescriptors.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Each takes memory of its own.
const std::string kChild = "a child whose name takes memory wherever it is copied";
const std::string kLeaf = "a leaf whose name takes memory wherever it is copied";

constexpr char kNoLock[] = "The lock of the map cannot be taken";

class OwedNewsTest : public DispatcherTest {
 protected:
  OwedNewsTest() : map_(AMap()) { table_.AddParent(""); }

  // The route thread has its time.
  void RouteAll() {
    clock_.Advance(std::chrono::seconds(1));
    routing_.RouteNext(0, 0);
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
  }
  // What waits goes, whatever has become of it.
  void ForgetAll() {
    table_.Parent()->TakeAll();
    std::vector<Envelope> left;
    MessageRouter::LoadPersistentEnvelopes(left);
    for (Envelope& envelope : left) envelope.Retire();
  }
  // What the parent is told: "event payload" of each.
  std::vector<std::string> Told() {
    RouteAll();
    std::vector<std::string> told;
    Envelope sent;
    while (table_.Parent()->PopNext(sent)) {
      told.push_back(sent.Type() + " " + PayloadOf(sent));
      sent.Retire();
    }
    // Nor is there anything else that the next start would tell.
    std::vector<Envelope> left;
    MessageRouter::LoadPersistentEnvelopes(left);
    EXPECT_THAT(left, IsEmpty());
    return told;
  }
  // Runs `work` with one failure at the first place where it takes memory, then at the second, and
  // so on until there is none; `check` after each.
  template <class Before, class Work, class Check>
  void WithOneFailureEach(Before&& before, Work&& work, Check&& check) {
    std::size_t spared = 0;
    for (bool failed = true; failed; ++spared) {
      ASSERT_LT(spared, 2000u);
      before();
      {
        const AllocationFailure failure(spared, 1);
        work();
        failed = AllocationFailure::Happened();
      }
      check();
      if (HasFailure()) FAIL() << spared;
    }
    EXPECT_GT(spared, 10u);
  }

  MessageRouter::Logical& map_;
};

// The end of a child

TEST_F(OwedNewsTest, TheEndOfAChildIsToldWhereverItFindsNoMemory) {
  WithOneFailureEach(
      [this] {
        ARouter(kChild);
        map_.Store(kLeaf, kChild);
      },
      [this] { EXPECT_NO_THROW(routing_.UnregisterPeer(kChild, true)); },
      [this] {
        EXPECT_FALSE(table_.HasChildRouter(kChild));
        EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered [" + kChild + "," + kLeaf + "]"));
        EXPECT_EQ(map_.Lookup(kLeaf), "");
      });
}

TEST_F(OwedNewsTest, TheMapKeepsTheNamesOfAChildUntilTheParentHasBeenTold) {
  ARouter(kChild);
  map_.Store(kLeaf, kChild);
  {
    const AllocationFailure failure;
    EXPECT_NO_THROW(routing_.UnregisterPeer(kChild, true));
  }
  EXPECT_EQ(map_.Lookup(kLeaf), kChild);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered [" + kChild + "," + kLeaf + "]"));
  EXPECT_EQ(map_.Lookup(kLeaf), "");
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(OwedNewsTest, WhatIsOwedIsTriedOnceASecondUntilItIsTold) {
  unsigned tried = 0;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (++tried < 4) throw std::bad_alloc();
    return true;
  });
  ARouter("child");
  routing_.UnregisterPeer("child", true);
  EXPECT_EQ(tried, 1u);
  for (int i = 0; i < 10; ++i) routing_.RouteNext(0, 0);
  EXPECT_EQ(tried, 2u);
  clock_.Advance(std::chrono::seconds(1));
  for (int i = 0; i < 10; ++i) routing_.RouteNext(0, 0);
  EXPECT_EQ(tried, 3u);
  EXPECT_TRUE(log_.Contains("ChildNews::TellOrOwe: Caught "));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child"));
  RouteAll();
  EXPECT_EQ(tried, 4u);
}

TEST_F(OwedNewsTest, WhatIsOwedAfterTheTimeIsToldLater) {
  ARouter("child");
  ARouter("child2");
  {
    const AllocationFailure failure;
    routing_.UnregisterPeer("child", true);
    routing_.UnregisterPeer("child2", true);
  }
  routing_.News().TellWhatIsOwed(std::chrono::milliseconds(-1));
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_THAT(Told(),
              UnorderedElementsAre("MS-RouterUnregistered child", "MS-RouterUnregistered child2"));
}

// It has none, and its map keeps what it has.
TEST_F(OwedNewsTest, ARootThatOwesNothingToAnybodyTellsNobody) {
  table_.Clear();
  table_.ReadTable(false);
  ARouter("child");
  map_.Store("child", "former");
  map_.Store("leaf", "child");
  {
    const AllocationFailure failure;
    EXPECT_THROW(routing_.RegisterPeer("child", true), BrelixMessaging::AlreadyRegistered);
  }
  routing_.UnregisterPeer("child", true);
  clock_.Advance(std::chrono::seconds(1));
  log_.Clear();
  routing_.RouteNext(0, 0);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_EQ(map_.Lookup("leaf"), "child");
  EXPECT_FALSE(log_.Contains("Cannot route"));
}

TEST_F(OwedNewsTest, WhatIsOwedIsToldBeforeAStop) {
  ARouter(kChild);
  {
    const AllocationFailure failure;
    routing_.UnregisterPeer(kChild, true);
  }
  routing_.News().TellWhatIsOwed(std::chrono::seconds(1));
  routing_.EmptyRouteQueue();
  std::vector<Envelope> left;
  MessageRouter::LoadPersistentEnvelopes(left);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(PayloadOf(left[0]), kChild);
}

TEST_F(OwedNewsTest, WhatIsOwedIsNotForgottenWhereTheChildrenCannotBeListed) {
  ARouter(kChild);
  {
    const AllocationFailure failure;
    routing_.UnregisterPeer(kChild, true);
    routing_.News().TellWhatIsOwed(std::chrono::seconds(1));
  }
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered " + kChild));
}

TEST_F(OwedNewsTest, NobodyTakesOverTheEntryOfAChildWhoseEndIsOwed) {
  Entry& entry = ARouter(kChild);
  {
    const AllocationFailure failure;
    routing_.UnregisterPeer(kChild, true);
  }
  table_.AddCertificationEntry("newcomer");
  EXPECT_NE(table_.Find("newcomer"), &entry);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered " + kChild));
  table_.AddCertificationEntry("another");
  EXPECT_EQ(table_.Find("another"), &entry);
}

TEST_F(OwedNewsTest, NobodyTakesOverTheEntryOfAChildWhoseEndIsBeingTold) {
  Entry& entry = ARouter("child");
  unsigned made = 0;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (++made == 2) {
      table_.AddCertificationEntry("newcomer");
      EXPECT_NE(table_.Find("newcomer"), &entry);
    }
    if (made < 3) throw std::bad_alloc();
    return true;
  });
  routing_.UnregisterPeer("child", true);
  RouteAll();
  ASSERT_EQ(made, 2u);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child"));
}

TEST_F(OwedNewsTest, WhatComesToBeOwedWhileTheEndOfTheChildIsToldIsToldToo) {
  ARouter("child");
  unsigned made = 0;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (++made == 1) throw std::bad_alloc();
    if (made == 2) {
      table_.Register("child", true);
      const AllocationFailure failure;
      EXPECT_THROW(routing_.RegisterPeer("child", true), BrelixMessaging::AlreadyRegistered);
    }
    return true;
  });
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child"));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [child]"));
}

TEST_F(OwedNewsTest, AnUnregisteringThatIsRefusedOwesNothing) {
  Entry& entry = ARouter("child");
  table_.Unregister("child");
  EXPECT_THROW(routing_.UnregisterPeer("child", true), BrelixMessaging::NotRegistered);
  EXPECT_FALSE(entry.OwesNews());
  const std::uint64_t debt = entry.OweNews();
  EXPECT_THROW(routing_.UnregisterPeer("child", true), BrelixMessaging::NotRegistered);
  EXPECT_TRUE(entry.OwesNews());
  entry.SettleNews(debt + 1);
  EXPECT_FALSE(entry.OwesNews());
}

TEST_F(OwedNewsTest, AChildThatIsBackBeforeItsEndCouldBeToldIsAnnounced) {
  ARouter(kChild);
  {
    const AllocationFailure failure;
    routing_.UnregisterPeer(kChild, true);
  }
  table_.Register(kChild, true);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [" + kChild + "]"));
}

TEST_F(OwedNewsTest, OfAFarewellInPiecesWhatFoundNoMemoryIsToldLater) {
  for (int i = 0; i < 5000; ++i) map_.Store(std::to_string(i) + std::string(900, 'n'), "child");
  ARouter("child");
  unsigned made = 0;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (++made == 2) throw std::bad_alloc();
    return true;
  });
  routing_.UnregisterPeer("child", true);
  std::vector<std::string> left;
  map_.AllKeys(left);
  EXPECT_GT(left.size(), 0u);
  EXPECT_LT(left.size(), 5000u);
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
  const std::vector<std::string> told = Told();
  ASSERT_EQ(told.size(), 2u);
  EXPECT_NE(told[1].find(left.front()), std::string::npos);
  EXPECT_NE(told[1].find(left.back()), std::string::npos);
  left.clear();
  EXPECT_EQ(map_.AllKeys(left), 0u);
}

// The registration of a child

TEST_F(OwedNewsTest, ARegistrationIsToldWhereverItsNewsFindsNoMemory) {
  unsigned number = 0;
  std::string child;
  WithOneFailureEach(
      [&] {
        child = kChild + std::to_string(++number);
        map_.Store(child, "former");
        table_.Register(child, true);
      },
      [&] { EXPECT_THROW(routing_.RegisterPeer(child, true), BrelixMessaging::AlreadyRegistered); },
      [&] {
        EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [" + child + "]"));
        EXPECT_EQ(map_.Lookup(child), "");
      });
}

TEST_F(OwedNewsTest, ANewChildOfWhichTheParentCannotBeToldAtOnceIsAnnouncedLater) {
  bool failed = false;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (!std::exchange(failed, true)) throw std::bad_alloc();
    return true;
  });
  EXPECT_NO_THROW(routing_.RegisterPeer("child", true));
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [child]"));
}

// News from below

class NewsFromBelowTest : public OwedNewsTest {
 protected:
  NewsFromBelowTest() {
    ARouter("child1");
    ARouter("child2");
  }
  Envelope News(const std::string& event, const CORBA::Any& payload) {
    return AMessage("MS-" + event, RouterRole()).WithOriginator("child1").WithData(payload);
  }
  // It is handled with one failure, and then, as it is put back, without.
  void Handle(Envelope& news, MessageRouter::Logical* map, std::size_t spared, bool& failed) {
    MessageRouter::Dispatcher dispatcher(routing_);
    try {
      const AllocationFailure failure(spared, 1);
      dispatcher.DispatchLocal(news, table_, map);
      failed = AllocationFailure::Happened();
      return;
    } catch (const std::bad_alloc&) {
    }
    dispatcher.DispatchLocal(news, table_, map);
  }
  // As above for each place; `check` looks at what has come of it all.
  template <class Before, class Check>
  void WithOneFailureEach(const std::string& event, const CORBA::Any& payload, bool withMap,
                          Before&& before, Check&& check) {
    std::size_t spared = 0;
    for (bool failed = true; failed; ++spared) {
      ASSERT_LT(spared, 2000u);
      before();
      Envelope news = News(event, payload);
      Handle(news, withMap ? &map_ : nullptr, spared, failed);
      check();
      if (HasFailure()) FAIL() << spared;
    }
    EXPECT_GT(spared, 10u);
  }
};

TEST_F(NewsFromBelowTest, IsToldAndMappedWhereverItFindsNoMemory) {
  WithOneFailureEach(
      "RouterRegistered", TextPayload(kLeaf), true, [this] { map_.Store(kLeaf, "child2"); },
      [this] {
        EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered " + kLeaf));
        EXPECT_EQ(map_.Lookup(kLeaf), "child1");
      });
  const std::string other = kLeaf + " and another";
  WithOneFailureEach(
      "RouterRegistered", ListPayload({kLeaf, other}), true,
      [this] { map_.Store(kLeaf, "child2"); },
      [&] {
        EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [" + kLeaf + "," + other + "]"));
        EXPECT_EQ(map_.Lookup(kLeaf), "child1");
        EXPECT_EQ(map_.Lookup(other), "child1");
      });
}

TEST_F(NewsFromBelowTest, OfAnEndIsToldAndLeavesTheMapWhereverItFindsNoMemory) {
  for (const CORBA::Any& payload : {TextPayload(kLeaf), ListPayload({kLeaf, "other"})}) {
    WithOneFailureEach(
        "RouterUnregistered", payload, true, [this] { map_.Store(kLeaf, "child1"); },
        [this] {
          EXPECT_THAT(Told(), ElementsAre(testing::HasSubstr(kLeaf)));
          EXPECT_EQ(map_.Lookup(kLeaf), "");
        });
  }
}

TEST_F(NewsFromBelowTest, GoesUpWithoutAMapWhereverItFindsNoMemory) {
  for (const std::string event : {"RouterRegistered", "RouterUnregistered"}) {
    WithOneFailureEach(
        event, TextPayload(kLeaf), false, [] {},
        [&] { EXPECT_THAT(Told(), ElementsAre("MS-" + event + " " + kLeaf)); });
  }
}

TEST_F(NewsFromBelowTest, ThatCouldNotBeToldChangesNothingAndIsHandledAnewBeforeOthers) {
  const struct {
    std::string event;
    CORBA::Any payload;
    std::string before, after;
  } rows[] = {
      {"RouterRegistered", TextPayload("leaf"), "child2", "child1"},
      {"RouterUnregistered", TextPayload("leaf"), "child1", ""},
      {"RouterUnregistered", ListPayload({"leaf"}), "child1", ""},
  };
  for (const auto& row : rows) {
    map_.Store("leaf", row.before);
    bool failed = false;
    const StoreThatLooks store(*this, [&]() -> bool {
      if (!std::exchange(failed, true)) throw std::bad_alloc();
      return true;
    });
    routing_.QueueForRouting(News(row.event, row.payload));
    routing_.QueueForRouting(News("RouterRegistered", TextPayload("later")));
    routing_.RouteNext(0, 0);
    EXPECT_EQ(map_.Lookup("leaf"), row.before);
    EXPECT_EQ(map_.Lookup("later"), "");
    EXPECT_EQ(routing_.RouteQueueSize(), 2u);
    EXPECT_TRUE(log_.Contains("Routing::RouteNext: Caught "));
    EXPECT_THAT(Told(),
                ElementsAre(testing::StartsWith("MS-" + row.event), "MS-RouterRegistered later"));
    EXPECT_EQ(map_.Lookup("leaf"), row.after);
    map_.Remove("later", "child1");
  }
}

TEST_F(NewsFromBelowTest, ARequestWhoseReplyFindsNoMemoryIsAnsweredLater) {
  bool failed = false;
  const StoreThatLooks store(*this, [&]() -> bool {
    if (!std::exchange(failed, true)) throw std::bad_alloc();
    return true;
  });
  Arrive(AMessage("EM-Heartbeat", ManagementRole()));
  Envelope answer;
  ASSERT_TRUE(asker_.PopNext(answer));
  EXPECT_EQ(answer.Type(), "EM-Heartbeat-Reply");
  EXPECT_FALSE(asker_.HasEnvelopes());
}

// What makes the shortage itself would otherwise stand in the way of all others for ever.
TEST_F(NewsFromBelowTest, ALargeRequestThatFindsNoMemoryForAMinuteIsSetAsideAndASmallOneIsNot) {
  const StoreThatLooks store(*this, []() -> bool { throw std::bad_alloc(); });
  for (const std::uintmax_t size : {std::uintmax_t{100}, std::uintmax_t{2} << 20}) {
    const bool large = size > 100;
    Envelope request = AStoredEnvelope("1.msg")
                           .WithId(large ? 2 : 1)
                           .WithDestination(":")
                           .WithType("EM-Heartbeat")
                           .WithOriginator("router1.asker")
                           .WithCertificate(ManagementRole());
    std::filesystem::resize_file(store_.Directory() + "1.msg", size);
    routing_.QueueForRouting(request);
    routing_.RouteNext(0, 0);
    clock_.Advance(std::chrono::seconds(59));
    routing_.RouteNext(0, 0);
    EXPECT_EQ(routing_.RouteQueueSize(), 1u) << large;
    clock_.Advance(std::chrono::seconds(2));
    routing_.RouteNext(0, 0);
    EXPECT_EQ(routing_.RouteQueueSize(), large ? 0u : 1u);
    EXPECT_EQ(FileExists("1.msg.bad"), large);
    EXPECT_EQ(log_.Contains("A message to this router is too large to be looked into"), large);
    while (routing_.RouteQueueSize() != 0) routing_.EmptyRouteQueue();
  }
}

TEST_F(NewsFromBelowTest, ALargeOneWhoseFileCannotBeOpenedForLongWaitsForIt) {
  Envelope news;
  news.CreateLocal(":", 9, MessageRouter::TimeToLive::Stated(600), "MS-RouterRegistered",
                   TextPayload(std::string(2 << 20, 'n')), "");
  const std::string file = news.FileName();
  ASSERT_GT(std::filesystem::file_size(file), std::uintmax_t{1} << 20);
  routing_.QueueForRouting(news);
  {
    const NoDescriptors none;
    for (int i = 0; i < 3; ++i) {
      routing_.RouteNext(0, 0);
      clock_.Advance(std::chrono::seconds(61));
    }
  }
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
  EXPECT_TRUE(std::filesystem::exists(file));
  // Its lines come once.
  EXPECT_EQ(log_.Count("Received message for this router"), 1u);
  EXPECT_EQ(log_.Count("Routing::RouteNext: Caught "), 1u);
}

// A lock of the map that can't be taken

class MapLockTest : public NewsFromBelowTest {
 protected:
  // Runs `work` with one lock that fails, the first, the second and so on, until it was the map's.
  template <class Before, class Work>
  void WithoutTheMapsLock(Before&& before, Work&& work) {
    log_.Clear();
    for (unsigned spared = 0; !log_.Contains(kNoLock); ++spared) {
      ASSERT_LT(spared, 200u) << "the map's lock is not looked at";
      RouteAll();
      ForgetAll();
      before();
      ThreadHelper::FailLocksAfter(spared, 1);
      try {
        work();
      } catch (const CORBA::UserException&) {
        // Another lock.
      }
      ThreadHelper::FailNextLocks(0);
    }
  }
};

TEST_F(MapLockTest, KeepsNoEndOfAChildFromBeingTold) {
  WithoutTheMapsLock(
      [this] {
        if (!table_.HasChildRouter("child")) table_.Register("child", true);
        map_.Store("leaf", "child");
      },
      [this] { routing_.UnregisterPeer("child", true); });
  EXPECT_EQ(map_.Lookup("leaf"), "child");
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered [child,leaf]"));
  EXPECT_EQ(map_.Lookup("leaf"), "");
}

TEST_F(MapLockTest, KeepsNoChildFromBeingAnnounced) {
  WithoutTheMapsLock(
      [this] {
        if (table_.HasChildRouter("child")) table_.Unregister("child");
        map_.Store("child", "former");
      },
      [this] { routing_.RegisterPeer("child", true); });
  EXPECT_EQ(map_.Lookup("child"), "former");
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered [child]"));
  EXPECT_EQ(map_.Lookup("child"), "");
}

TEST_F(MapLockTest, KeepsNoChildThatLogsOnInTheMap) {
  WithoutTheMapsLock(
      [this] {
        if (!table_.HasChildRouter("child")) table_.Register("child", true);
        map_.Store("child", "former");
      },
      [this] { LogOn("child"); });
  EXPECT_EQ(map_.Lookup("child"), "former");
  RouteAll();
  EXPECT_EQ(map_.Lookup("child"), "");
}

TEST_F(OwedNewsTest, AChildThatLogsOnLeavesTheMapWhereverThatFindsNoMemory) {
  ARouter(kChild);
  bool wasOwed = false;
  bool failed = true;
  for (std::size_t spared = 0; failed; ++spared) {
    ASSERT_LT(spared, 2000u);
    map_.Store(kChild, kLeaf);
    try {
      const AllocationFailure failure(spared, 1);
      LogOn(kChild);
    } catch (const std::bad_alloc&) {
      // It has not come so far.
    }
    failed = AllocationFailure::Happened();
    const bool isHere = table_.HasChildRouterHere(kChild);
    if (isHere && !map_.Lookup(kChild).empty()) wasOwed = true;
    RouteAll();
    EXPECT_EQ(map_.Lookup(kChild), isHere ? "" : kLeaf) << spared;
    table_.Find(kChild)->Logoff(kChild);
    ForgetAll();
  }
  EXPECT_TRUE(wasOwed);
}

TEST_F(MapLockTest, KeepsNoNewsFromBelowFromBeingHandled) {
  WithoutTheMapsLock([this] { map_.Store("leaf", "child2"); },
                     [this] {
                       routing_.QueueForRouting(News("RouterRegistered", TextPayload("leaf")));
                       routing_.RouteNext(0, 0);
                     });
  EXPECT_EQ(map_.Lookup("leaf"), "child2");
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered leaf"));
  EXPECT_EQ(map_.Lookup("leaf"), "child1");
  WithoutTheMapsLock([this] { map_.Store("leaf", "child1"); },
                     [this] {
                       routing_.QueueForRouting(News("RouterUnregistered", TextPayload("leaf")));
                       routing_.RouteNext(0, 0);
                     });
  EXPECT_EQ(map_.Lookup("leaf"), "child1");
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered leaf"));
  EXPECT_EQ(map_.Lookup("leaf"), "");
}

class SubscriberLockTest : public OwedNewsTest {};

TEST_F(SubscriberLockTest, KeepsNobodyFromBeingSubscribedAndAnsweredOnce) {
  constexpr char kNoSubscribersLock[] = "The lock of the subscriber cannot be taken";
  std::vector<std::string> answers;
  for (unsigned spared = 0; !log_.Contains(kNoSubscribersLock); ++spared) {
    ASSERT_LT(spared, 200u) << "the subscriber's lock is not looked at";
    routing_.ClientUpdates().SetDestination("another");
    answers.clear();
    routing_.QueueForRouting(AMessage("EM-NotifyClientUpdates", NoRole()));
    ThreadHelper::FailLocksAfter(spared, 1);
    routing_.RouteNext(0, 0);
    ThreadHelper::FailNextLocks(0);
    RouteAll();
    Envelope answer;
    while (asker_.PopNext(answer)) answers.push_back(answer.Type());
  }
  EXPECT_THAT(answers, ElementsAre("EM-NotifyClientUpdates-Reply"));
  EXPECT_EQ(MessageRouter::GetConfigString("NotifyClientUpdate", ""), "router1.asker");
}

// Whoever registers beside it looks at the number of farewells beneath that lock.
TEST_F(MapLockTest, IsTakenForAFarewellThatARouterWithoutAMapPassesOn) {
  routing_.SetLogical(nullptr);
  WithoutTheMapsLock([] {},
                     [this] {
                       routing_.QueueForRouting(News("RouterUnregistered", TextPayload("leaf")));
                       routing_.RouteNext(0, 0);
                     });
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered leaf"));
}

}  // namespace
}  // namespace TestSupport
