// What the parent is told of the children of this router, whatever comes in between.
#include <new>

#include "dispatcher_fixture.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using BrelixMessaging::AlreadyRegistered;
using testing::ElementsAre;
using testing::IsEmpty;

class ChildNewsTest : public DispatcherTest {
 protected:
  ChildNewsTest() { table_.AddParent(""); }

  // "event payload" of each, in the order in which the routers above hear of it after a restart.
  std::vector<std::string> ToldAfterARestart() {
    std::vector<std::string> told;
    std::vector<Envelope> envelopes;
    MessageRouter::LoadPersistentEnvelopes(envelopes);
    for (Envelope& envelope : envelopes) {
      if (envelope.Destination() != ":.:") continue;
      told.push_back(envelope.Type() + " " + PayloadOf(envelope));
    }
    return told;
  }
  // The same, as they wait for the parent now.
  std::vector<std::string> Told() {
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
    std::vector<std::string> told;
    Envelope sent;
    while (table_.Parent()->PopNext(sent)) told.push_back(sent.Type() + " " + PayloadOf(sent));
    return told;
  }
  // So many names below a child that the last of them has a piece of its farewell for itself.
  static std::set<std::string> ANameTooMany(MessageRouter::Logical& map, const std::string& child) {
    constexpr std::size_t kLength = 900;
    constexpr std::size_t kPiece = std::size_t{4} << 20;
    std::set<std::string> names;
    for (std::size_t size = 0;; size += kLength + 4) {
      std::string name = std::to_string(names.size());
      name.append(kLength - name.size(), 'n');
      EXPECT_EQ(map.Store(name, child), 0);
      names.insert(std::move(name));
      if (size >= kPiece) return names;
    }
  }
  // Routing stops: the table is closed, and emptied.
  void Stop(bool cleared) {
    table_.WriteTable(true);
    if (cleared) table_.Clear();
  }
  // The write of the table's file fails from now on.
  void BreakTheFile() {
    ARouter("broken").LogonRouter("broken",
                                  BrelixMessaging::RouterConsumer::_var_type(
                                      AReferenceTo<BrelixMessaging::RouterConsumer>("broken")),
                                  BrelixMessaging::RouterSupplier::_nil(),
                                  BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    host_.onObjectToString = [] { throw std::bad_alloc(); };
  }
};

// A stop in between

class StopInBetweenTest : public ChildNewsTest {
 protected:
  StopInBetweenTest() { routing_.RouterUpdates().SetDestination("router1.asker"); }

  // Routing stops when that many envelopes, of which the first is the subscriber's, have been made.
  template <class Work>
  void WithAStopAt(unsigned envelope, bool cleared, Work&& work) {
    unsigned made = 0;
    const StoreThatLooks stops(*this, [&] {
      if (++made == envelope) Stop(cleared);
      return true;
    });
    work();
    EXPECT_GE(made, envelope);
  }
};

TEST_F(StopInBetweenTest, AChildThatTheTablesFileHoldsIsToldWhenTheRouterStartsAgain) {
  unsigned number = 0;
  for (const unsigned envelope : {1u, 2u}) {
    for (const bool cleared : {false, true}) {
      const std::string child = "child" + std::to_string(number++);
      WithAStopAt(envelope, cleared, [&] { routing_.RegisterPeer(child, true); });
      EXPECT_NE(TableText().find(child + ".1"), std::string::npos);
      routing_.EmptyRouteQueue();
      table_.Clear();
      table_.ReadTable(true);
      EXPECT_TRUE(table_.HasChildRouter(child));
      ASSERT_EQ(ToldAfterARestart().size(), number);
      EXPECT_EQ(ToldAfterARestart().back(), "MS-RouterRegistered " + child);
    }
  }
}

TEST_F(StopInBetweenTest, AChildThatRegisteredAgainIsToldWhenTheRouterStartsAgain) {
  for (const bool cleared : {false, true}) {
    ARouter("child" + std::to_string(cleared));
    WithAStopAt(1, cleared, [&] {
      EXPECT_THROW(routing_.RegisterPeer("child" + std::to_string(cleared), true),
                   AlreadyRegistered);
    });
    table_.Clear();
    table_.ReadTable(true);
  }
  EXPECT_THAT(ToldAfterARestart(),
              ElementsAre("MS-RouterRegistered [child0]", "MS-RouterRegistered [child1]"));
}

TEST_F(StopInBetweenTest, AChildThatWentBeforeTheStopIsNotTold) {
  for (const bool cleared : {false, true}) {
    unsigned made = 0;
    const StoreThatLooks stops(*this, [&] {
      if (++made != 2) return true;
      table_.Unregister("child");
      Stop(cleared);
      return true;
    });
    routing_.RegisterPeer("child", true);
    table_.Clear();
    table_.ReadTable(true);
  }
  EXPECT_THAT(ToldAfterARestart(), IsEmpty());
}

TEST_F(StopInBetweenTest, TheEndOfAChildIsToldWhenTheRouterStartsAgain) {
  MessageRouter::Logical& map = AMap();
  for (const bool cleared : {false, true}) {
    const std::string child = "child" + std::to_string(cleared);
    ARouter(child);
    map.Store("leaf", child);
    WithAStopAt(1, cleared, [&] { routing_.UnregisterPeer(child, true); });
    EXPECT_EQ(map.Lookup("leaf"), "");
    table_.Clear();
    table_.ReadTable(true);
    EXPECT_FALSE(table_.HasChildRouter(child));
  }
  EXPECT_THAT(ToldAfterARestart(), ElementsAre("MS-RouterUnregistered [child0,leaf]",
                                               "MS-RouterUnregistered [child1,leaf]"));
}

TEST_F(StopInBetweenTest, AFarewellInPiecesIsToldWholeThoughTheStopComesInItsMiddle) {
  MessageRouter::Logical& map = AMap();
  for (const bool cleared : {false, true}) {
    const std::string child = "child" + std::to_string(cleared);
    ARouter(child);
    // One more than what fits into the first piece.
    const std::set<std::string> names = ANameTooMany(map, child);
    // The subscriber's envelope, the first piece, the second.
    WithAStopAt(3, cleared, [&] { routing_.UnregisterPeer(child, true); });
    HeardAbove above(names);
    std::vector<Envelope> envelopes;
    MessageRouter::LoadPersistentEnvelopes(envelopes);
    for (Envelope& envelope : envelopes) {
      above.Hear(envelope);
      envelope.Retire();
    }
    for (const std::string& name : names) ASSERT_FALSE(above.Knows(name)) << name;
    std::vector<std::string> left;
    EXPECT_EQ(map.AllKeys(left), 0u);
    routing_.EmptyRouteQueue();
    table_.Clear();
    table_.ReadTable(true);
    EXPECT_FALSE(table_.HasChildRouter(child));
  }
}

// A farewell in pieces

TEST_F(ChildNewsTest, ThePieceOfAFarewellThatHasOneNameIsAListLikeTheOthers) {
  MessageRouter::Logical& map = AMap();
  ARouter("child");
  const std::set<std::string> names = ANameTooMany(map, "child");
  routing_.UnregisterPeer("child", true);
  const std::vector<std::string> told = Told();
  ASSERT_EQ(told.size(), 2u);
  EXPECT_TRUE(told[0].starts_with("MS-RouterUnregistered [child,"));
  ASSERT_TRUE(told[1].starts_with("MS-RouterUnregistered ["));
  const std::string inBrackets = told[1].substr(told[1].find('[') + 1);
  EXPECT_TRUE(names.contains(inBrackets.substr(0, inBrackets.size() - 1)));
}

// The order after a restart

TEST_F(ChildNewsTest, AFarewellThatIsMadeBesideARegistrationComesBeforeItAfterARestart) {
  ARouter("child1");
  MessageRouter::Logical& map = AMap();
  const std::function<void()> farewells[] = {
      // The child's own: it leaves and comes back.
      [&] {
        routing_.UnregisterPeer("leaf", true);
        table_.Register("leaf", true);
      },
      // That of its former way.
      [&] {
        map.Store("leaf", "child1");
        table_.Unregister("leaf");
        Arrive(AMessage("MS-RouterUnregistered", RouterRole())
                   .WithOriginator("child1")
                   .WithData(TextPayload("leaf")));
        table_.Register("leaf", true);
      },
      [&] {
        map.Store("leaf", "child1");
        table_.Unregister("leaf");
        Arrive(AMessage("MS-RouterUnregistered", RouterRole())
                   .WithOriginator("child1")
                   .WithData(ListPayload({"leaf"})));
        table_.Register("leaf", true);
      },
  };
  for (const auto& farewell : farewells) {
    bool begun = false;
    const StoreThatLooks store(*this, [&] {
      if (!std::exchange(begun, true)) farewell();
      return true;
    });
    routing_.RegisterPeer("leaf", true);
    const std::vector<std::string> told = ToldAfterARestart();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_TRUE(told[0].starts_with("MS-RouterUnregistered ")) << told[0];
    EXPECT_EQ(told[1], "MS-RouterRegistered leaf");
    EXPECT_EQ(Told(), told);
    table_.Unregister("leaf");
    std::vector<Envelope> envelopes;
    MessageRouter::LoadPersistentEnvelopes(envelopes);
    for (Envelope& envelope : envelopes) envelope.Retire();
  }
}

TEST_F(ChildNewsTest, NewsThatCannotBeMadeAgainAfterAFarewellIsToldAsItIs) {
  unsigned made = 0;
  const StoreThatLooks store(*this, [&] {
    if (++made == 3) throw std::runtime_error("no news");
    if (made == 1) {
      routing_.UnregisterPeer("child", true);
      table_.Register("child", true);
    }
    return true;
  });
  routing_.RegisterPeer("child", true);
  EXPECT_TRUE(FileExists("00000000.msg"));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child", "MS-RouterRegistered child"));
}

// A child that is elsewhere by now

TEST_F(ChildNewsTest, TheEndOfAChildThatTheMapLeadsToThroughAnotherIsNoNews) {
  MessageRouter::Logical& map = AMap();
  ARouter("child1");
  ARouter("moved");
  map.Store("moved", "child1");
  routing_.UnregisterPeer("moved", true);
  EXPECT_THAT(Told(), IsEmpty());
  EXPECT_EQ(map.Lookup("moved"), "child1");
}

TEST_F(ChildNewsTest, OfAChildThatTheMapLeadsToThroughAnotherOnlyWhatLedThroughItIsTold) {
  MessageRouter::Logical& map = AMap();
  ARouter("child1");
  ARouter("moved");
  map.Store("moved", "child1");
  map.Store("leaf", "moved");
  routing_.UnregisterPeer("moved", true);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered [leaf]"));
}

TEST_F(ChildNewsTest, TheEndOfAChildIsToldWhereTheMapLeadsToNoOtherChild) {
  MessageRouter::Logical& map = AMap();
  ARouter("left");
  table_.Unregister("left");
  for (const std::string way : {"stranger", "left", "asker"}) {
    ARouter("moved");
    map.Store("moved", way);
    routing_.UnregisterPeer("moved", true);
    EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered moved")) << way;
  }
}

// Late news of a child that is here

class LateNewsTest : public ChildNewsTest {
 protected:
  LateNewsTest() : map_(AMap()) {
    ARouter("child1");
    ARouter("near");
  }
  // Its former way announces it.
  void Announce(const CORBA::Any& payload) {
    Arrive(
        AMessage("MS-RouterRegistered", RouterRole()).WithOriginator("child1").WithData(payload));
  }

  MessageRouter::Logical& map_;
};

TEST_F(LateNewsTest, DoesNotKeepTheEndOfAChildFromBeingTold) {
  for (const CORBA::Any& payload : {TextPayload("near"), ListPayload({"near"})}) {
    if (!table_.HasChildRouter("near")) ARouter("near");
    LogOn("near");
    Announce(payload);
    EXPECT_EQ(map_.Lookup("near"), "");
    EXPECT_EQ(Told().size(), 1u);
    routing_.UnregisterPeer("near", true);
    EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered near"));
  }
}

TEST_F(LateNewsTest, OfAChildThatIsAwayCountsUntilItLogsOn) {
  Announce(TextPayload("near"));
  EXPECT_EQ(map_.Lookup("near"), "child1");
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered near"));
  LogOn("near");
  EXPECT_EQ(map_.Lookup("near"), "");
  routing_.UnregisterPeer("near", true);
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered near"));
}

TEST_F(LateNewsTest, OfAChildThatIsAwayAndStaysSoIsTakenForItsMove) {
  Announce(TextPayload("near"));
  Told();
  routing_.UnregisterPeer("near", true);
  EXPECT_THAT(Told(), IsEmpty());
  EXPECT_EQ(map_.Lookup("near"), "child1");
}

TEST_F(LateNewsTest, AboutTheNameOfAClientIsMapped) {
  LogonPushed(asker_);
  Announce(TextPayload("asker"));
  EXPECT_EQ(map_.Lookup("asker"), "child1");
}

TEST_F(LateNewsTest, ThatCannotBeTakenBackKeepsNobodyFromLoggingOn) {
  unsigned spared = 0;
  for (; !log_.Contains("The lock of the map cannot be taken"); ++spared) {
    ASSERT_LT(spared, 100u);
    map_.Store("near", "child1");
    ThreadHelper::FailLocksAfter(spared, 1);
    try {
      LogOn("near");
    } catch (const CORBA::UserException&) {
      // Another lock.
    }
    ThreadHelper::FailNextLocks(0);
  }
  EXPECT_TRUE(table_.Find("near")->IsLoggedOn());
}

// What goes wrong

TEST_F(ChildNewsTest, AChildIsToldThoughTheTablesFileCannotBeMade) {
  BreakTheFile();
  EXPECT_NO_THROW(routing_.RegisterPeer("child", true));
  EXPECT_TRUE(table_.HasChildRouter("child"));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered child"));
  EXPECT_TRUE(log_.Contains("Routing::RegisterPeer: Caught "));
}

TEST_F(ChildNewsTest, ALogonCountsThoughTheTablesFileCannotBeMade) {
  ARouter("child");
  BreakTheFile();
  const auto client = routing_.LogonClientPeer("asker", BrelixMessaging::EnvelopeConsumer::_nil(),
                                               BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_FALSE(CORBA::is_nil(client.supplier));
  EXPECT_TRUE(asker_.IsLoggedOn());
  EXPECT_THAT(host_.Senders(), ElementsAre(&asker_));
  EXPECT_TRUE(log_.Contains("Routing::LogonClientPeer: Caught "));
  PassAMinute();
  const auto router = routing_.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(),
                                               BrelixMessaging::RouterSupplier::_nil(),
                                               BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_FALSE(CORBA::is_nil(router.supplier));
  EXPECT_TRUE(table_.Find("child")->IsLoggedOn());
  EXPECT_TRUE(log_.Contains("Routing::LogonRouterPeer: Caught "));
  host_.onObjectToString = nullptr;
  PassAMinute();
  table_.Tick();
  EXPECT_NE(TableText().find("asker.0"), std::string::npos);
}

TEST_F(ChildNewsTest, TheEndOfAChildIsToldThoughTheTablesFileCannotBeMade) {
  ARouter("child");
  BreakTheFile();
  EXPECT_NO_THROW(routing_.UnregisterPeer("child", true));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child"));
  EXPECT_TRUE(log_.Contains("Routing::UnregisterPeer: Caught "));
}

TEST_F(ChildNewsTest, ACorbaExceptionInTheNewsKeepsNobodyFromRegistering) {
  const StoreThatLooks broken(*this, []() -> bool { throw CORBA::NO_MEMORY(); });
  EXPECT_NO_THROW(routing_.RegisterPeer("child", true));
  EXPECT_TRUE(log_.Contains("ChildNews::MakeNews: Caught CORBA"));
  EXPECT_NO_THROW(routing_.UnregisterPeer("child", true));
}

TEST_F(ChildNewsTest, ACorbaExceptionInWhatGoesOnUpDoesNotLeaveTheRouteThread) {
  AMap();
  ARouter("child1");
  const StoreThatLooks broken(*this, []() -> bool { throw CORBA::NO_MEMORY(); });
  EXPECT_NO_THROW(Arrive(AMessage("MS-RouterRegistered", RouterRole())
                             .WithOriginator("child1")
                             .WithData(TextPayload("leaf"))));
  EXPECT_TRUE(log_.Contains("Dispatcher::Send: Caught CORBA"));
}

}  // namespace
}  // namespace TestSupport
