// Registrations and logons, as servants ask for them.
#include <algorithm>
#include <new>
#include <stdexcept>

#include "fixture.h"
#include "support/AllocationFailure.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using BrelixMessaging::AlreadyRegistered;
using BrelixMessaging::NotRegistered;
using testing::ElementsAre;
using testing::IsEmpty;

class PeersTest : public RoutingTest {
 protected:
  // The one envelope that waits for its decision, taken up to the parent.
  Envelope SentUp() {
    EXPECT_EQ(routing_.RouteQueueSize(), 1u);
    routing_.RouteNext(0, 0);
    Envelope envelope;
    EXPECT_TRUE(table_.Parent()->PopNext(envelope));
    return envelope;
  }
  // The names in all news that wait for their decision.
  std::vector<std::vector<std::string>> ListsSentUp() {
    std::vector<std::vector<std::string>> lists;
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
    Envelope envelope;
    while (table_.Parent()->PopNext(envelope)) lists.push_back(Names(envelope));
    return lists;
  }
  void AParentAndASubscriber() {
    table_.AddParent("");
    AClient("watcher");
    routing_.RouterUpdates().SetDestination("router1.watcher");
  }
  Entry::LocalPeerObjects LogonClient(const std::string& name) {
    return routing_.LogonClientPeer(name, BrelixMessaging::EnvelopeConsumer::_nil(),
                                    BrelixMessaging::NotifyConsumer::_nil(), 0);
  }
  Entry::LocalPeerObjects LogonRouter(const std::string& name) {
    return routing_.LogonRouterPeer(name, BrelixMessaging::RouterConsumer::_nil(),
                                    BrelixMessaging::RouterSupplier::_nil(),
                                    BrelixMessaging::NotifyConsumer::_nil(), 0);
  }
  // The types of what waits for its decision, which it then has.
  std::vector<std::string> RoutedInOrder() {
    log_.Clear();
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
    std::vector<std::string> types;
    for (const auto& line : log_.Lines()) {
      if (!line.text.starts_with("Routing to ")) continue;
      const std::size_t type = line.text.find(", type=") + 7;
      types.push_back(line.text.substr(type, line.text.find('\n') - type));
    }
    return types;
  }
  static std::string Text(Envelope& envelope) {
    CORBA::Any any;
    envelope.GetData(any);
    const char* text = nullptr;
    return (any >>= text) ? text : "no text";
  }
  static std::vector<std::string> Names(Envelope& envelope) {
    CORBA::Any any;
    envelope.GetData(any);
    const BrelixMessaging::String_seq* list = nullptr;
    std::vector<std::string> names;
    EXPECT_TRUE(any >>= list);
    for (CORBA::ULong i = 0; list != nullptr && i < list->length(); ++i) {
      names.emplace_back((*list)[i].in());
    }
    return names;
  }
};

TEST_F(PeersTest, RegisteringWritesTheTable) {
  routing_.RegisterPeer("agent", false);
  EXPECT_EQ(TableText(), "agent.0..\n");
  EXPECT_THROW(routing_.RegisterPeer("agent", false), AlreadyRegistered);
  PassAMinute();
  routing_.UnregisterPeer("agent", false);
  EXPECT_EQ(TableText(), "");
  EXPECT_THROW(routing_.UnregisterPeer("agent", false), NotRegistered);
}

TEST_F(PeersTest, AClientsRegistrationIsNoNewsForTheParent) {
  table_.AddParent("");
  routing_.RegisterPeer("agent", false);
  routing_.UnregisterPeer("agent", false);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(PeersTest, ARoutersRegistrationIsNoNewsWithoutAParent) {
  routing_.RegisterPeer("child", true);
  routing_.UnregisterPeer("child", true);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(PeersTest, ARoutersRegistrationIsToldToTheParent) {
  table_.AddParent("");
  routing_.RegisterPeer("child", true);
  Envelope envelope = SentUp();
  EXPECT_EQ(envelope.Type(), "MS-RouterRegistered");
  EXPECT_EQ(envelope.Destination(), ":.:");
  EXPECT_EQ(envelope.Priority(), 0u);
  EXPECT_EQ(envelope.Ttl(), clock_.WallSeconds() + 43200);
  EXPECT_EQ(envelope.Originator(), "router1");
  EXPECT_EQ(Text(envelope), "child");
}

TEST_F(PeersTest, ARoutersUnregisteringIsToldToTheParentByNameWhereNothingLedThroughIt) {
  table_.AddParent("");
  for (const bool withMap : {false, true}) {
    if (withMap) AMap().Store("leaf", "another");
    table_.Register("child", true);
    routing_.UnregisterPeer("child", true);
    Envelope envelope = SentUp();
    EXPECT_EQ(envelope.Type(), "MS-RouterUnregistered");
    EXPECT_EQ(envelope.Destination(), ":.:");
    EXPECT_EQ(envelope.Priority(), 0u);
    EXPECT_EQ(envelope.Ttl(), clock_.WallSeconds() + 43200);
    EXPECT_EQ(Text(envelope), "child");
  }
}

TEST_F(PeersTest, AFormerParentsUnregisteringIsRefusedAndNoNews) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  EXPECT_THROW(routing_.UnregisterPeer("former", true), NotRegistered);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(PeersTest, ARoutersUnregisteringTellsTheParentOfAllThatLedThroughIt) {
  table_.AddParent("");
  MessageRouter::Logical& map = AMap();
  map.Store("leaf2", "child");
  map.Store("leaf1", "child");
  map.Store("leaf3", "another");
  table_.Register("child", true);
  routing_.UnregisterPeer("child", true);
  Envelope envelope = SentUp();
  // The child first, then the names in the order of the map.
  EXPECT_THAT(Names(envelope), ElementsAre("child", "leaf2", "leaf1"));
  EXPECT_EQ(map.Lookup("leaf1"), "");
  EXPECT_EQ(map.Lookup("leaf2"), "");
  EXPECT_EQ(map.Lookup("leaf3"), "another");
}

TEST_F(PeersTest, NewsForTheParentLivesAsLongAsTheRoutersOwnMessagesDo) {
  table_.AddParent("");
  LetOwnMessagesLive(17);
  routing_.RegisterPeer("child", true);
  EXPECT_EQ(SentUp().Ttl(), clock_.WallSeconds() + 17);
  routing_.UnregisterPeer("child", true);
  EXPECT_EQ(SentUp().Ttl(), clock_.WallSeconds() + 17);
}

TEST_F(PeersTest, TheSubscriberHearsOfARegistrationBeforeTheParent) {
  AParentAndASubscriber();
  routing_.RegisterPeer("child", true);
  EXPECT_THAT(RoutedInOrder(), ElementsAre("EM-RouterRegistered", "MS-RouterRegistered"));
}

TEST_F(PeersTest, AnUnregisteringIsToldToTheSubscriberThenToTheParentThenItsQueueIsRouted) {
  AParentAndASubscriber();
  AMap().Store("leaf", "child");
  Entry& child = ARouter("child");
  Enqueue(child, AnEnvelope().WithType("Waited").WithDestination("child"));
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(RoutedInOrder(),
              ElementsAre("EM-RouterUnregistered", "MS-RouterUnregistered", "Waited"));
}

TEST_F(PeersTest, ARegisteredPeerIsInTheTablesFileAndNobodyIsToldOfARefusal) {
  AParentAndASubscriber();
  PassAMinute();
  routing_.RegisterPeer("child", true);
  EXPECT_NE(TableText().find("child.1"), std::string::npos);
  RoutedInOrder();
  EXPECT_THROW(routing_.RegisterPeer("watcher", false), AlreadyRegistered);
  EXPECT_THROW(routing_.RegisterPeer("watcher", true), AlreadyRegistered);
  EXPECT_THROW(routing_.RegisterPeer("", true), AlreadyRegistered);
  EXPECT_THROW(routing_.UnregisterPeer("nobody", true), NotRegistered);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(PeersTest, AChildRouterThatRegistersAgainIsRefusedAndAnnouncedToTheParentAsAListAlone) {
  AParentAndASubscriber();
  ARouter("child");
  EXPECT_THROW(routing_.RegisterPeer("child", true), AlreadyRegistered);
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
  Envelope envelope = SentUp();
  EXPECT_EQ(envelope.Type(), "MS-RouterRegistered");
  EXPECT_EQ(envelope.Destination(), ":.:");
  EXPECT_EQ(envelope.Priority(), 0u);
  EXPECT_THAT(Names(envelope), ElementsAre("child"));
}

TEST_F(PeersTest, ARouterThatRegistersHereNoLongerLeadsThroughAnotherChild) {
  MessageRouter::Logical& map = AMap();
  map.Store("new", "another");
  map.Store("known", "another");
  ARouter("known");
  routing_.RegisterPeer("new", true);
  EXPECT_EQ(map.Lookup("new"), "");
  EXPECT_THROW(routing_.RegisterPeer("known", true), AlreadyRegistered);
  EXPECT_EQ(map.Lookup("known"), "");
}

TEST_F(PeersTest, AChildThatGoesWhileItsNewsIsMadeIsNotAnnounced) {
  table_.AddParent("");
  StoreThatLooks looks(*this, [this] {
    table_.Unregister("child");
    return true;
  });
  routing_.RegisterPeer("child", true);
  EXPECT_THAT(looks.Seen(), ElementsAre(true));
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_FALSE(FileExists("00000000.msg"));
}

TEST_F(PeersTest, AClientOfANameThatTheParentOnceHadRegistersAndLogsOn) {
  table_.AddParent("");
  table_.SetParentName("agent");
  EXPECT_THROW(routing_.RegisterPeer("agent", false), AlreadyRegistered);
  EXPECT_THROW(routing_.UnregisterPeer("agent", false), NotRegistered);
  table_.SetParentName("boss");
  EXPECT_THROW(routing_.UnregisterPeer("agent", false), NotRegistered);
  routing_.RegisterPeer("agent", false);
  routing_.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(),
                           BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_TRUE(table_.Find("agent")->IsLoggedOn());
  EXPECT_FALSE(table_.Find("agent")->IsRouter());
  EXPECT_FALSE(table_.Parent()->IsLoggedOn());
  EXPECT_THROW(routing_.RegisterPeer("agent", false), AlreadyRegistered);
  routing_.UnregisterPeer("agent", false);
  EXPECT_TRUE(table_.Parent()->IsRegistered());
}

TEST_F(PeersTest, AChildRouterThatOnceLedThroughTheOneThatEndsIsNotTakenAlong) {
  table_.AddParent("");
  MessageRouter::Logical& map = AMap();
  ARouter("child");
  ARouter("moved");
  map.Store("moved", "child");  // late news
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(ListsSentUp(), ElementsAre(ElementsAre("child")));
  EXPECT_EQ(map.Lookup("moved"), "");
}

TEST_F(PeersTest, AClientThatRegistersLeavesTheMapAsItIs) {
  MessageRouter::Logical& map = AMap();
  map.Store("name", "child");
  routing_.RegisterPeer("name", false);
  EXPECT_EQ(map.Lookup("name"), "child");
}

TEST_F(PeersTest, TheTableIsWrittenBeforeTheNewsOfARegistration) {
  AParentAndASubscriber();
  PassAMinute();
  StoreThatLooks looks(*this, [&] { return TableText().find("child.1") != std::string::npos; });
  routing_.RegisterPeer("child", true);
  EXPECT_THAT(looks.Seen(), ElementsAre(true, true));
}

TEST_F(PeersTest, TheTableIsWrittenBeforeTheNewsOfAnUnregistering) {
  AParentAndASubscriber();
  PassAMinute();
  routing_.RegisterPeer("child", true);
  ASSERT_NE(TableText().find("child.1"), std::string::npos);
  PassAMinute();
  StoreThatLooks looks(*this, [&] { return TableText().find("child.1") == std::string::npos; });
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(looks.Seen(), ElementsAre(true, true));
}

TEST_F(PeersTest, NamesLeaveTheMapAfterTheParentHasBeenToldThatTheyAreGone) {
  table_.AddParent("");
  MessageRouter::Logical& map = AMap();
  map.Store("leaf", "child");
  ARouter("child");
  StoreThatLooks looks(*this, [&] { return map.Lookup("leaf") == "child"; });
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(looks.Seen(), ElementsAre(true));
  EXPECT_EQ(map.Lookup("leaf"), "");
}

TEST_F(PeersTest, MoreNamesThanOneMessageMayHaveAreToldInSeveral) {
  table_.AddParent("");
  MessageRouter::Logical& map = AMap();
  std::vector<std::string> names = {"child"};
  for (int i = 0; i < 5000; ++i) {
    names.push_back(std::to_string(i) + std::string(900, 'n'));
    ASSERT_EQ(map.Store(names.back(), "child"), 0);
  }
  ARouter("child");
  routing_.UnregisterPeer("child", true);
  const auto lists = ListsSentUp();
  ASSERT_EQ(lists.size(), 2u);
  std::vector<std::string> told = lists[0];
  EXPECT_EQ(told.at(0), "child");
  told.insert(told.end(), lists[1].begin(), lists[1].end());
  std::sort(told.begin(), told.end());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(told, names);
  std::vector<std::string> left;
  EXPECT_EQ(map.AllKeys(left), 0u);
}

TEST_F(PeersTest, WhatWasAnnouncedByAnotherChildMeanwhileIsNotTakenAlong) {
  table_.AddParent("");
  MessageRouter::Logical& map = AMap();
  for (int i = 0; i < 5000; ++i) map.Store(std::to_string(i) + std::string(900, 'n'), "child");
  std::vector<std::string> keys;
  map.KeysOf("child", keys);
  ARouter("child");
  // The last name moves while the first message is written.
  StoreThatLooks looks(*this, [&] { return map.Store(keys.back(), "another") == 0; });
  routing_.UnregisterPeer("child", true);
  const auto lists = ListsSentUp();
  ASSERT_EQ(lists.size(), 2u);
  EXPECT_EQ(lists[0].size() + lists[1].size(), keys.size());
  EXPECT_EQ(std::count(lists[1].begin(), lists[1].end(), keys.back()), 0);
  EXPECT_EQ(map.Lookup(keys.back()), "another");
}

TEST_F(PeersTest, NewsThatCannotBeToldIsLoggedAndKeepsNobodyFromRegistering) {
  table_.AddParent("");
  AMap();
  StoreThatLooks broken(*this, []() -> bool { throw std::runtime_error("no news"); });
  EXPECT_NO_THROW(routing_.RegisterPeer("child", true));
  EXPECT_TRUE(log_.Contains("ChildNews::MakeNews: Caught no news MS-RouterRegistered"));
  EXPECT_NO_THROW(routing_.UnregisterPeer("child", true));
  EXPECT_FALSE(table_.HasChildRouter("child"));
}

TEST_F(PeersTest, AFaultThatIsLoggedShowsTheNameWithoutControlCharacters) {
  const BrelixMessaging::RouterConsumer_var consumer =
      AReferenceTo<BrelixMessaging::RouterConsumer>("consumer");
  ARouter("child").LogonRouter("child", consumer, BrelixMessaging::RouterSupplier::_nil(),
                               BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  host_.onObjectToString = [] { throw std::runtime_error("no text"); };
  PassAMinute();
  routing_.RegisterPeer("agent\nnews", false);
  EXPECT_TRUE(log_.Contains("Routing::RegisterPeer: Caught no text agent?news\n"));
}

TEST_F(PeersTest, TheRootOfATreeDoesNotCleanItsMap) {
  MessageRouter::Logical& map = AMap();
  map.Store("leaf", "child");
  table_.Register("child", true);
  EXPECT_NE(routing_.FindRoute("leaf"), nullptr);
  routing_.UnregisterPeer("child", true);
  EXPECT_EQ(map.Lookup("leaf"), "child");
  EXPECT_EQ(routing_.FindRoute("leaf"), nullptr);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(PeersTest, UnregisteringTakesTheQueueBackIntoRouting) {
  Entry& client = AClient("agent");
  Enqueue(client, AnEnvelope().WithId(1).WithPriority(1));
  Enqueue(client, AnEnvelope().WithId(2).WithPriority(2));
  routing_.UnregisterPeer("agent", false);
  EXPECT_FALSE(client.HasEnvelopes());
  EXPECT_EQ(routing_.RouteQueueSize(), 2u);
}

TEST_F(PeersTest, APeerThatIsBackBeforeItsQueueIsRoutedAnewKeepsIt) {
  table_.AddParent("");
  Entry& child = ARouter("child");
  Enqueue(child, AnEnvelope().WithId(1));
  StoreThatLooks looks(*this, [&] {
    ARouter("child");
    return true;
  });
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(looks.Seen(), ElementsAre(true));
  EXPECT_THAT(Drain(child), ElementsAre(1u));
}

// Whichever allocation it is: one waits on disk at the worst, and the rest where it was.
TEST_F(PeersTest, UnregisteringThatLacksMemoryOnceLosesNoEnvelope) {
  const std::string name = "a name that takes memory wherever it is copied";
  const std::vector<std::string> leaves = {"1.msg", "2.msg", "3.msg"};
  unsigned onDiskAlone = 0;
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    Entry* client = table_.Find(name);
    if (client == nullptr || !client->IsRegistered()) client = &AClient(name);
    PassAMinute();
    for (const std::string& leaf : leaves) Enqueue(*client, AStoredEnvelope(leaf));
    {
      const AllocationFailure failure(successes, 1);
      try {
        routing_.UnregisterPeer(name, false);
      } catch (const std::bad_alloc&) {
      }
      complete = !AllocationFailure::Happened();
    }
    const std::size_t held = routing_.RouteQueueSize() + Drain(*client).size();
    routing_.EmptyRouteQueue();
    EXPECT_GE(held + 1, leaves.size()) << successes;
    for (const std::string& leaf : leaves) EXPECT_TRUE(FileExists(leaf)) << successes;
    if (held != leaves.size()) ++onDiskAlone;
  }
  EXPECT_NE(onDiskAlone, 0u);
}

TEST_F(PeersTest, LogonsOfUnknownPeersAreRefused) {
  EXPECT_THROW(routing_.LogonClientPeer("nobody", BrelixMessaging::EnvelopeConsumer::_nil(),
                                        BrelixMessaging::NotifyConsumer::_nil(), 0),
               NotRegistered);
  EXPECT_THROW(routing_.LogonRouterPeer("nobody", BrelixMessaging::RouterConsumer::_nil(),
                                        BrelixMessaging::RouterSupplier::_nil(),
                                        BrelixMessaging::NotifyConsumer::_nil(), 0),
               NotRegistered);
  EXPECT_THROW(routing_.LogoffPeer("nobody"), NotRegistered);
}

TEST_F(PeersTest, AClientsLogonGivesItsObjectsWritesTheTableAndOffersWhatWaits) {
  Entry& client = AClient("agent");
  const auto local = routing_.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(),
                                              BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_FALSE(CORBA::is_nil(local.consumer));
  EXPECT_FALSE(CORBA::is_nil(local.supplier));
  EXPECT_EQ(TableText(), "agent.0..\n");
  EXPECT_THAT(host_.Senders(), ElementsAre(&client));
  routing_.LogoffPeer("agent");
  EXPECT_FALSE(client.IsLoggedOn());
}

TEST_F(PeersTest, APeerWithANotifierIsOwedAThresholdCallFirst) {
  Entry& client = AClient("agent");
  const BrelixMessaging::NotifyConsumer_var notify =
      AReferenceTo<BrelixMessaging::NotifyConsumer>("notify");
  routing_.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(), notify, 0);
  EXPECT_THAT(host_.ThresholdCalls(), ElementsAre(&client));
  EXPECT_THAT(host_.Senders(), IsEmpty());
}

TEST_F(PeersTest, APushedPeerWithANotifierGoesToTheSenders) {
  Entry& client = AClient("agent");
  const BrelixMessaging::NotifyConsumer_var notify =
      AReferenceTo<BrelixMessaging::NotifyConsumer>("notify");
  const BrelixMessaging::EnvelopeConsumer_var consumer =
      AReferenceTo<BrelixMessaging::EnvelopeConsumer>("consumer");
  routing_.LogonClientPeer("agent", consumer, notify, 0);
  EXPECT_THAT(host_.Senders(), ElementsAre(&client));
}

TEST_F(PeersTest, ARouterThatIsPolledIsPolledRightAfterItsLogon) {
  Entry& child = ARouter("child");
  const BrelixMessaging::RouterSupplier_var supplier =
      AReferenceTo<BrelixMessaging::RouterSupplier>("supplier");
  const auto local = routing_.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(),
                                              supplier, BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_FALSE(CORBA::is_nil(local.notify));
  EXPECT_THAT(host_.Pollers(), ElementsAre(&child));
  EXPECT_EQ(child.GetSupplierState(), Entry::kPollNotified);
  EXPECT_THAT(host_.Senders(), ElementsAre(&child));
}

TEST_F(PeersTest, ARouterThatPushesIsNotPolled) {
  ARouter("child");
  routing_.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(),
                           BrelixMessaging::RouterSupplier::_nil(),
                           BrelixMessaging::NotifyConsumer::_nil(), 0);
  EXPECT_THAT(host_.Pollers(), IsEmpty());
}

// Whichever lock it is.
TEST_F(PeersTest, ALogonThatGetsALockTooFewGivesItsObjectsOrIsRefused) {
  Entry& client = AClient("agent");
  Entry& child = ARouter("child");
  unsigned refused = 0;
  for (unsigned spared = 0; spared < 40; ++spared) {
    for (Entry* entry : {&client, &child}) {
      if (entry->IsLoggedOn()) entry->Logoff(entry->Name());
      ThreadHelper::FailLocksAfter(spared, 1);
      try {
        const auto local = entry == &client ? LogonClient("agent") : LogonRouter("child");
        EXPECT_FALSE(CORBA::is_nil(local.consumer)) << spared;
        EXPECT_TRUE(entry->IsLoggedOn()) << spared;
      } catch (const CORBA::UserException&) {
        ++refused;
      }
      ThreadHelper::FailNextLocks(0);
    }
  }
  EXPECT_GT(refused, 4u);
}

TEST_F(PeersTest, ALogonDuringWhichTheTableIsClosedIsRejected) {
  const auto close = [this] { table_.Clear(); };
  AClient("agent");
  host_.onOfferToSenders = close;
  EXPECT_THROW(LogonClient("agent"), BrelixMessaging::Rejected);
  table_.ReadTable(false);
  ARouter("child");
  EXPECT_THROW(LogonRouter("child"), BrelixMessaging::Rejected);
}

TEST_F(PeersTest, ALogonCountsAndIsToldThoughAnOfferFails) {
  AParentAndASubscriber();
  routing_.ClientUpdates().SetDestination("router1.watcher");
  Entry& client = AClient("agent");
  Entry& child = ARouter("child");
  host_.onOfferToSenders = [] { throw std::runtime_error("no pool"); };
  EXPECT_NO_THROW(LogonClient("agent"));
  EXPECT_TRUE(log_.Contains("Routing::LogonClientPeer: Caught no pool agent\n"));
  EXPECT_NO_THROW(LogonRouter("child"));
  EXPECT_TRUE(log_.Contains("Routing::LogonRouterPeer: Caught no pool child\n"));
  host_.onOfferToSenders = nullptr;
  EXPECT_TRUE(client.IsLoggedOn());
  EXPECT_TRUE(child.IsLoggedOn());
  EXPECT_THAT(RoutedInOrder(), ElementsAre("EM-ClientLogon", "EM-RouterLogon"));
}

// Whichever allocation it is.
TEST_F(PeersTest, ALogonThatLacksMemoryOnceIsRefusedOrCounts) {
  const std::string name = "a name that takes memory wherever it is copied";
  routing_.ClientUpdates().SetDestination("router1.a watcher whose name takes memory");
  Entry& client = AClient(name);
  unsigned counted = 0;
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    ASSERT_LT(successes, 1000u);
    if (client.IsLoggedOn()) client.Logoff(name);
    PassAMinute();
    const AllocationFailure failure(successes, 1);
    try {
      LogonClient(name);
      if (client.IsLoggedOn()) ++counted;
    } catch (const std::bad_alloc&) {
      EXPECT_FALSE(client.IsLoggedOn()) << successes;
    }
    complete = !AllocationFailure::Happened();
  }
  EXPECT_GT(counted, 10u);
}

TEST_F(PeersTest, TheCycleIsNullWhileNoneRuns) {
  EXPECT_EQ(MessageRouter::Cycle::Current(), nullptr);
  MessageRouter::Cycle::Set(&routing_);
  EXPECT_EQ(MessageRouter::Cycle::Current(), &routing_);
  MessageRouter::Cycle::Set(nullptr);
}

}  // namespace
}  // namespace TestSupport
