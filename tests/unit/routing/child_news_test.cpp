// What the parent is told of the children of this router, whatever comes in between.
#include <new>

#include "dispatcher_fixture.h"

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

// What goes wrong

TEST_F(ChildNewsTest, AChildIsToldThoughTheTablesFileCannotBeMade) {
  BreakTheFile();
  EXPECT_NO_THROW(routing_.RegisterPeer("child", true));
  EXPECT_TRUE(table_.HasChildRouter("child"));
  EXPECT_THAT(Told(), ElementsAre("MS-RouterRegistered child"));
  EXPECT_TRUE(log_.Contains("Routing::RegisterPeer: Caught "));
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
  EXPECT_TRUE(log_.Contains("Routing::MakeNews: Caught CORBA"));
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
