#include "routing/Routing.h"

#include <ace/Log_Record.h>

#include <functional>
#include <thread>
#include <utility>

#include "fixture.h"
#include "security/OwnIdentity.h"

namespace TestSupport {
namespace {

using MessageRouter::kLogInfo;
using MessageRouter::kLogWarning;
using MessageRouter::OwnIdentity::Set;
using testing::ElementsAre;
using testing::IsEmpty;

class RouteTest : public RoutingTest {
 protected:
  Entry& AParent() {
    table_.AddParent("");
    return *table_.Parent();
  }
  // How the one envelope that waits would travel on.
  std::vector<std::string> HopsLeft(Entry& entry) {
    Envelope envelope;
    EXPECT_TRUE(entry.PopNext(envelope));
    return envelope.PhysicalDestination();
  }
  bool Unrouteable(const std::string& name) const {
    return log_.Has(kLogWarning, "Cannot route message to " + name + "\n");
  }
};

TEST_F(RouteTest, AnEmptyDestinationGoesToTheParent) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination(""));
  EXPECT_TRUE(parent.HasEnvelopes());
}

TEST_F(RouteTest, AnEmptyDestinationWithoutAParentIsUnrouteableToNowhere) {
  Route(AStoredEnvelope("1.msg").WithDestination(""));
  EXPECT_TRUE(Unrouteable("nowhere"));
  EXPECT_FALSE(FileExists("1.msg"));
}

TEST_F(RouteTest, AnEmptyDestinationIsNotThisRouterEvenBeforeItHasAName) {
  Set("", "");
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination(""));
  EXPECT_TRUE(parent.HasEnvelopes());
}

TEST_F(RouteTest, ThisRoutersNameAloneIsDispatchedLocally) {
  Route(AStoredEnvelope("1.msg").WithDestination("router1"));
  EXPECT_TRUE(log_.Has(kLogInfo, "Received message for this router\n"));
  EXPECT_TRUE(log_.Has(kLogInfo, "Unknown Message type (Test.Message) originator Router.sender\n"));
  EXPECT_FALSE(FileExists("1.msg"));
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);  // the answer
}

TEST_F(RouteTest, AColonAloneIsDispatchedLocallyEvenIfItHasExpired) {
  Route(AnEnvelope().WithDestination(":").WithTtl(1));
  EXPECT_TRUE(log_.Has(kLogInfo, "Received message for this router\n"));
}

TEST_F(RouteTest, ThisRoutersNameAndAChildPopsTheFirstHop) {
  Entry& child = ARouter("child");
  Route(AnEnvelope().WithDestination("router1.child"));
  EXPECT_THAT(HopsLeft(child), ElementsAre("child"));
  EXPECT_THAT(host_.Senders(), ElementsAre(&child));
}

TEST_F(RouteTest, ThisRoutersNameAndAnUnknownChildIsUnrouteableAndTheParentIsNotTried) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination("router1.child"));
  EXPECT_FALSE(parent.HasEnvelopes());
  EXPECT_TRUE(Unrouteable("child"));
}

TEST_F(RouteTest, AnUnknownSingleNameFromAClientGoesToTheParent) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination("stranger"));
  EXPECT_THAT(HopsLeft(parent), ElementsAre("stranger"));
  EXPECT_THAT(host_.Senders(), ElementsAre(&parent));
  EXPECT_TRUE(log_.Contains("Routing to parent: "));
}

TEST_F(RouteTest, AnUnknownNameFromTheParentIsUnrouteable) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination("stranger").FromParent());
  EXPECT_FALSE(parent.HasEnvelopes());
  EXPECT_TRUE(Unrouteable("stranger"));
}

TEST_F(RouteTest, WithoutAParentAnUnknownNameIsReportedWithTheName) {
  Route(AStoredEnvelope("1.msg").WithDestination("stranger.x").WithType("T"));
  EXPECT_TRUE(Unrouteable("stranger"));
  EXPECT_TRUE(log_.Has(kLogWarning, "Delivery failed(Unrouteable) for message type T, originator " +
                                        Envelope(AnEnvelope()).Originator()));
  EXPECT_FALSE(FileExists("1.msg"));
}

TEST_F(RouteTest, TheAddressOfTheParentWithoutAParentIsUnrouteable) {
  Route(AnEnvelope().WithDestination(":.:"));
  EXPECT_TRUE(Unrouteable(":"));
}

TEST_F(RouteTest, TheAddressOfTheParentGoesUpWithOneHopLeft) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination(":.:"));
  EXPECT_THAT(HopsLeft(parent), ElementsAre(":"));
}

TEST_F(RouteTest, TheAddressOfTheParentFromTheParentIsUnrouteable) {
  Entry& parent = AParent();
  Route(AnEnvelope().WithDestination(":.:").FromParent());
  EXPECT_FALSE(parent.HasEnvelopes());
}

TEST_F(RouteTest, ANameInTheTableIsTakenAtOnceWithNoPop) {
  Entry& client = AClient("agent");
  Route(AnEnvelope().WithDestination("agent.more"));
  EXPECT_THAT(HopsLeft(client), ElementsAre("agent", "more"));
  EXPECT_TRUE(log_.Contains("Routing to agent: "));
}

TEST_F(RouteTest, AnUnrouteableDeliveryFailedMessageIsNoFailureButAnUnrouteableReplyIs) {
  struct Case {
    const char* type;
    bool reported;
  };
  const Case cases[] = {
      {"MS-DeliveryFailed", false}, {"ms-deliveryfailed-x", false}, {"MS-x-DeliveryFAILED", false},
      {"MS-Reply", true},           {"EM-DeliveryFailed", true},    {"DeliveryFailed", true},
  };
  for (const Case& c : cases) {
    log_.Clear();
    Route(AnEnvelope().WithDestination("stranger").WithType(c.type));
    EXPECT_TRUE(Unrouteable("stranger")) << c.type;
    EXPECT_EQ(log_.Contains("Delivery failed"), c.reported) << c.type;
  }
}

TEST_F(RouteTest, AnUnregisteredPeerCountsAsUnknown) {
  AClient("agent");
  table_.Unregister("agent");
  EXPECT_EQ(routing_.FindRoute("agent"), nullptr);
  Route(AnEnvelope().WithDestination("agent"));
  EXPECT_TRUE(Unrouteable("agent"));
}

TEST_F(RouteTest, APeerThatIsNotLoggedOnKeepsTheEnvelope) {
  Entry& client = AClient("agent");
  Route(AnEnvelope().WithDestination("agent"));
  EXPECT_TRUE(client.HasEnvelopes());
}

TEST_F(RouteTest, APeerLoggedOnForCertificationIsRoutable) {
  table_.AddCertificationEntry("new");
  Entry& entry = *table_.Find("new");
  Route(AnEnvelope().WithDestination("new"));
  EXPECT_TRUE(Unrouteable("new"));
  entry.LogonCertification("new");
  Route(AnEnvelope().WithDestination("new"));
  EXPECT_TRUE(entry.HasEnvelopes());
}

TEST_F(RouteTest, TheParentIsReachedUnderAllItsNames) {
  Entry& parent = AParent();
  table_.SetParentName("boss");
  for (const char* name : {"boss", "", "stranger"}) {
    Route(AnEnvelope().WithDestination(name));
    EXPECT_EQ(routing_.RouteQueueSize(), 0u) << name;
    EXPECT_EQ(Drain(parent).size(), 1u) << name;
  }
}

TEST_F(RouteTest, AnUnregisteredParentStillTakesWhatGoesUp) {
  Entry& parent = AParent();
  table_.SetParentName("boss");
  Route(AnEnvelope().WithDestination("stranger"));
  routing_.UnregisterPeer("boss", true);
  routing_.EmptyRouteQueue();  // what the router told the parent
  Route(AnEnvelope().WithDestination("stranger"));
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_EQ(Drain(parent).size(), 2u);
}

// Runs something between the decision, which is logged, and the envelope's way into the entry; on
// another thread, as in life, which doesn't hold the log's lock.
class AfterDecision : public LogCapture {
 public:
  explicit AfterDecision(std::function<void()> action) : action_(std::move(action)) {}
  ssize_t log(ACE_Log_Record& record) override {
    const ssize_t result = LogCapture::log(record);
    if (Contains("Routing to ") && action_) std::thread(std::exchange(action_, nullptr)).join();
    return result;
  }

 private:
  std::function<void()> action_;
};

TEST_F(RouteTest, AnEnvelopeWhosePeerIsUnregisteredMeanwhileIsDecidedAnew) {
  Entry& parent = AParent();
  Entry& client = AClient("agent");
  AfterDecision hook([&] { table_.Unregister("agent"); });
  Route(AnEnvelope().WithDestination("agent"));
  EXPECT_FALSE(client.HasEnvelopes());
  EXPECT_THAT(host_.Senders(), IsEmpty());
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
  routing_.RouteNext(0, 0);
  EXPECT_THAT(HopsLeft(parent), ElementsAre("agent"));
}

TEST_F(RouteTest, AnEnvelopeThatNamedThisRouterIsDecidedAnewFromTheAddressAsItCame) {
  Entry& parent = AParent();
  AClient("agent");
  AfterDecision hook([&] { table_.Unregister("agent"); });
  Route(AnEnvelope().WithDestination("router1.agent"));
  routing_.RouteNext(0, 0);
  EXPECT_FALSE(parent.HasEnvelopes());
  EXPECT_TRUE(hook.Has(kLogWarning, "Cannot route message to agent\n"));
}

// Whenever the peer goes, the outcome is that of an address that was unknown from the start.
TEST_F(RouteTest, AnEnvelopeThatWaitsForAPeerWhichGoesIsDecidedAsIfThePeerHadNeverBeenThere) {
  struct Case {
    const char* address;
    bool goesUp;
  };
  for (const Case& c :
       {Case{"router1.agent", false}, Case{":.agent", false}, Case{"router1.agent.more", false},
        Case{"agent", true}, Case{"agent.more", true}}) {
    if (table_.Parent() == nullptr) AParent();
    Entry& parent = *table_.Parent();
    AClient("agent");
    log_.Clear();
    Route(AStoredEnvelope("1.msg").WithDestination(c.address));
    ASSERT_TRUE(table_.Find("agent")->HasEnvelopes()) << c.address;
    routing_.UnregisterPeer("agent", false);
    ASSERT_EQ(routing_.RouteQueueSize(), 1u) << c.address;
    routing_.RouteNext(0, 0);
    EXPECT_EQ(parent.HasEnvelopes(), c.goesUp) << c.address;
    EXPECT_EQ(Unrouteable("agent"), !c.goesUp) << c.address;
    EXPECT_EQ(FileExists("1.msg"), c.goesUp) << c.address;
    parent.TakeAll();
  }
}

TEST_F(RouteTest, AnEnvelopeThatNamedThisRouterReachesAPeerThatComesBackWithTheHopsThatWereLeft) {
  AClient("agent");
  Route(AnEnvelope().WithDestination("router1.agent.more"));
  routing_.UnregisterPeer("agent", false);
  Entry& again = AClient("agent");
  routing_.RouteNext(0, 0);
  EXPECT_THAT(HopsLeft(again), ElementsAre("agent", "more"));
}

TEST_F(RouteTest, AnEnvelopeDecidedAnewLosesNoSecondHop) {
  AClient("agent");
  AfterDecision hook([&] { table_.Unregister("agent"); });
  Route(AnEnvelope().WithDestination("router1.agent.router1"));
  ASSERT_EQ(routing_.RouteQueueSize(), 1u);
  Entry& again = AClient("agent");
  routing_.RouteNext(0, 0);
  EXPECT_THAT(HopsLeft(again), ElementsAre("agent", "router1"));
}

TEST_F(RouteTest, AnEnvelopeWhoseEntryIsTakenOverMeanwhileDoesNotReachTheNewPeer) {
  table_.AddCertificationEntry("former");
  Entry& entry = *table_.Find("former");
  entry.LogonCertification("former");
  AfterDecision hook([&] {
    entry.LogoffCertification();
    table_.AddCertificationEntry("new");
    entry.LogonCertification("new");
  });
  Route(AnEnvelope().WithDestination("former"));
  EXPECT_EQ(entry.Name(), "new");
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
}

TEST_F(RouteTest, AParentThatIsRenamedMeanwhileGetsTheEnvelopeInTheEnd) {
  Entry& parent = AParent();
  AfterDecision hook([&] { table_.SetParentName("boss"); });
  Route(AnEnvelope().WithDestination("stranger"));
  while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
  EXPECT_EQ(Drain(parent).size(), 1u);
}

TEST_F(RouteTest, EnvelopesAreDecidedInOrderOfArrival) {
  Entry& client = AClient("agent");
  for (const std::uint32_t id : {1, 2, 3}) {
    routing_.QueueForRouting(AnEnvelope().WithId(id).WithDestination("agent"));
  }
  for (int i = 0; i < 3; ++i) routing_.RouteNext(0, 0);
  EXPECT_THAT(Drain(client), ElementsAre(1, 2, 3));
}

TEST_F(RouteTest, AnEmptyRouteQueueIsNormal) {
  routing_.RouteNext(0, 1);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(RouteTest, CancelRetiresAnEnvelopeThatStillWaitsForItsDecision) {
  routing_.QueueForRouting(AStoredEnvelope("1.msg").WithId(1).WithOriginator("router1.a"));
  EXPECT_FALSE(routing_.CancelInRouteQueue("router1.b", 1));
  EXPECT_TRUE(routing_.CancelInRouteQueue("router1.a", 1));
  EXPECT_FALSE(FileExists("1.msg"));
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(RouteTest, EmptyingTheRouteQueueRetiresNothing) {
  routing_.QueueForRouting(AStoredEnvelope("1.msg"));
  routing_.EmptyRouteQueue();
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_TRUE(FileExists("1.msg"));
}

TEST_F(RouteTest, ANameFurtherDownGoesToTheChildThatLeadsThere) {
  Entry& parent = AParent();
  Entry& child = ARouter("child");
  MessageRouter::Logical& map = AMap();
  map.Store("leaf", "child");
  EXPECT_EQ(routing_.FindRoute("leaf"), &child);
  Route(AnEnvelope().WithDestination("leaf.agent"));
  EXPECT_THAT(HopsLeft(child), ElementsAre("leaf", "agent"));
  EXPECT_FALSE(parent.HasEnvelopes());
  EXPECT_TRUE(log_.Contains("Routing to child: "));
}

TEST_F(RouteTest, NoPeerAndNoNameFurtherDownGetsWhatIsForTheParent) {
  Entry& parent = AParent();
  AClient(":");
  ARouter("child");
  AMap().Store(":", "child");
  EXPECT_EQ(routing_.FindRoute(":"), nullptr);
  Route(AnEnvelope().WithDestination(":.:"));
  EXPECT_THAT(HopsLeft(parent), ElementsAre(":"));
}

TEST_F(RouteTest, ANeighbourIsTakenBeforeWhatTheMapSays) {
  Entry& child = ARouter("child");
  ARouter("other");
  AMap().Store("child", "other");
  EXPECT_EQ(routing_.FindRoute("child"), &child);
}

TEST_F(RouteTest, ANameThatTheMapLeadsToAnUnregisteredOrUnknownChildIsUnknown) {
  ARouter("child");
  table_.Unregister("child");
  MessageRouter::Logical& map = AMap();
  map.Store("leaf1", "child");
  map.Store("leaf2", "never");
  EXPECT_EQ(routing_.FindRoute("leaf1"), nullptr);
  EXPECT_EQ(routing_.FindRoute("leaf2"), nullptr);
  Route(AnEnvelope().WithDestination("leaf1"));
  EXPECT_TRUE(Unrouteable("leaf1"));
}

TEST_F(RouteTest, ANameThatTheMapLeadsToAClientIsUnknown) {
  AClient("former");
  AMap().Store("leaf", "former");
  EXPECT_EQ(routing_.FindRoute("leaf"), nullptr);
  EXPECT_NE(routing_.FindRoute("former"), nullptr);
}

TEST_F(RouteTest, WhatCameDownDoesNotGoUpAgainByTheMapOrForWantOfAHop) {
  Entry& parent = AParent();
  table_.SetParentName("boss");
  AMap().Store("leaf", "boss");
  for (const char* destination : {"leaf", "leaf.agent", "router1.leaf", ""}) {
    log_.Clear();
    Route(AStoredEnvelope("1.msg").WithDestination(destination).FromParent());
    EXPECT_FALSE(parent.HasEnvelopes()) << destination;
    EXPECT_TRUE(Unrouteable(*destination == '\0' ? "nowhere" : "leaf")) << destination;
    EXPECT_FALSE(FileExists("1.msg")) << destination;
  }
}

TEST_F(RouteTest, WhatComesFromBelowGoesUpByTheMapToo) {
  Entry& parent = AParent();
  table_.SetParentName("boss");
  AMap().Store("leaf", "boss");
  Route(AnEnvelope().WithDestination("leaf"));
  EXPECT_TRUE(parent.HasEnvelopes());
}

TEST_F(RouteTest, TheParentsNameInTheTableIsTakenWhereverTheEnvelopeCameFrom) {
  Entry& parent = AParent();
  table_.SetParentName("boss");
  Route(AnEnvelope().WithDestination("boss").FromParent());
  EXPECT_TRUE(parent.HasEnvelopes());
}

TEST_F(RouteTest, NoTextOfAPeersMakesALogLineOfItsOwn) {
  AParent();
  const auto message = [] {
    return AnEnvelope().WithOriginator("o\nx").WithType("t\r\nx").WithDestination("h\nx.+AAo-");
  };
  // UTF-7 for a line end.
  Route(message());
  EXPECT_TRUE(log_.Contains("origin=o?x, dest=h?x.?, type=t??x\n"));
  Route(message().FromParent());
  EXPECT_TRUE(Unrouteable("h?x"));
  EXPECT_TRUE(
      log_.Has(kLogWarning, "Delivery failed(Unrouteable) for message type t??x, originator o?x"));
  for (const auto& line : log_.Lines()) {
    EXPECT_GE(line.text.find_first_of("\r\n"), line.text.size() - 1) << line.text;
  }
}

TEST_F(RouteTest, AMapThatCannotBeOpenedFindsNothing) {
  routing_.SetLogical(std::make_unique<MessageRouter::Logical>("no/such/folder/LogicalTable"));
  Route(AnEnvelope().WithDestination("stranger"));
  EXPECT_TRUE(Unrouteable("stranger"));
}

TEST_F(RouteTest, APeerThatASenderServesAlreadyIsOfferedAgainWhenThatSenderLeaves) {
  Entry& client = AClient("agent");
  LogonPushed(client);
  const Entry::Claim claim = client.ClaimForSending();
  ASSERT_TRUE(claim.acquired);
  host_.ForgetOffers();
  Route(AnEnvelope().WithDestination("agent"));
  EXPECT_THAT(host_.Senders(), IsEmpty());
  client.SendFinished(claim.generation);
  EXPECT_THAT(host_.Senders(), ElementsAre(&client));
}

TEST_F(RouteTest, WhileStuckSendersAreCountedEveryEnvelopeIsAnOffer) {
  Entry& client = AClient("agent");
  LogonPushed(client);
  ASSERT_TRUE(client.ClaimForSending().acquired);
  host_.ForgetOffers();
  host_.countsBusyOffers = true;
  Route(AnEnvelope().WithDestination("agent"));
  EXPECT_THAT(host_.Senders(), ElementsAre(&client));
}

}  // namespace
}  // namespace TestSupport
