#include "routing/UpdateNotifier.h"

#include <latch>
#include <thread>

#include "config/Configuration.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "routing/Passing.h"

namespace TestSupport {
namespace {

using MessageRouter::GetConfigString;
using MessageRouter::kLogError;
using MessageRouter::UpdateNotifier;
using testing::ElementsAre;
using testing::IsEmpty;

class UpdateNotifierTest : public RoutingTest {
 protected:
  UpdateNotifierTest() : watcher_(AClient("watcher")) {}

  // "type of NAME" for each notice that has come to the watcher since the last call.
  std::vector<std::string> Notices() {
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
    std::vector<std::string> notices;
    Envelope envelope;
    while (watcher_.PopNext(envelope)) {
      CORBA::Any any;
      envelope.GetData(any);
      const char* name = nullptr;
      notices.push_back(envelope.Type() + " of " + ((any >>= name) ? name : "nobody"));
    }
    return notices;
  }
  void Subscribe() {
    routing_.ClientUpdates().SetDestination("router1.watcher");
    routing_.RouterUpdates().SetDestination("router1.watcher");
  }

  Entry& watcher_;
};

TEST_F(UpdateNotifierTest, WithoutASubscriberNobodyIsTold) {
  routing_.ClientUpdates().Registered("agent");
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", "unset"), "unset");
}

TEST_F(UpdateNotifierTest, EachEventHasANoticeForEachKindOfPeer) {
  Subscribe();
  for (UpdateNotifier* notifier : {&routing_.ClientUpdates(), &routing_.RouterUpdates()}) {
    notifier->Registered("a");
    notifier->Unregistered("b");
    notifier->Logon("c");
    notifier->Logoff("d");
  }
  EXPECT_THAT(Notices(), ElementsAre("EM-ClientRegistered of a", "EM-ClientUnregistered of b",
                                     "EM-ClientLogon of c", "EM-ClientLogoff of d",
                                     "EM-RouterRegistered of a", "EM-RouterUnregistered of b",
                                     "EM-RouterLogon of c", "EM-RouterLogoff of d"));
}

TEST_F(UpdateNotifierTest, ANoticeHasPriority0AndTheTimeToLiveOfTheRoutersOwnMessages) {
  Subscribe();
  routing_.ClientUpdates().Logon("agent");
  routing_.RouteNext(0, 0);
  Envelope envelope;
  ASSERT_TRUE(watcher_.PopNext(envelope));
  EXPECT_EQ(envelope.Priority(), 0u);
  EXPECT_EQ(envelope.Ttl(), clock_.WallSeconds() + 43200);
  EXPECT_EQ(envelope.Originator(), "router1");
  EXPECT_EQ(envelope.Destination(), "router1.watcher");
}

TEST_F(UpdateNotifierTest, ANoticeLivesAsLongAsTheRoutersOwnMessagesDo) {
  Subscribe();
  LetOwnMessagesLive(17);
  UpdateNotifier notifier(routing_, false);
  notifier.Logon("agent");
  routing_.RouteNext(0, 0);
  Envelope envelope;
  ASSERT_TRUE(watcher_.PopNext(envelope));
  EXPECT_EQ(envelope.Ttl(), clock_.WallSeconds() + 17);
}

TEST_F(UpdateNotifierTest, ASubscriptionOutlivesARestart) {
  routing_.ClientUpdates().SetDestination("router1.watcher");
  routing_.RouterUpdates().SetDestination("another");
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), "router1.watcher");
  EXPECT_EQ(GetConfigString("NotifyRouterUpdate", ""), "another");
  UpdateNotifier next(routing_, false);
  next.Logon("agent");
  EXPECT_THAT(Notices(), ElementsAre("EM-ClientLogon of agent"));
}

TEST_F(UpdateNotifierTest, TheLastSubscriberTakesThePlaceOfTheOneBefore) {
  Entry& second = AClient("second");
  Subscribe();
  routing_.ClientUpdates().SetDestination("router1.second");
  routing_.ClientUpdates().Logon("agent");
  routing_.RouterUpdates().Logon("child");
  EXPECT_THAT(Notices(), ElementsAre("EM-RouterLogon of child"));
  EXPECT_EQ(Drain(second).size(), 1u);
}

TEST_F(UpdateNotifierTest, AnEmptyAddressEndsTheSubscription) {
  Subscribe();
  routing_.ClientUpdates().SetDestination("");
  routing_.ClientUpdates().Logon("agent");
  EXPECT_THAT(Notices(), IsEmpty());
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", "unset"), "");
}

TEST_F(UpdateNotifierTest, TheSameSubscriberOnceMoreWritesNothing) {
  routing_.ClientUpdates().SetDestination("router1.watcher");
  std::filesystem::remove("brelix.config");
  EXPECT_TRUE(routing_.ClientUpdates().SetDestination("router1.watcher"));
  EXPECT_FALSE(std::filesystem::exists("brelix.config"));
  EXPECT_TRUE(routing_.ClientUpdates().SetDestination("router1.other"));
  EXPECT_TRUE(std::filesystem::exists("brelix.config"));
}

TEST_F(UpdateNotifierTest, EachNotifierBeginsWithTheSubscriberOfItsKind) {
  MessageRouter::SetConfigString("NotifyRouterUpdate", "router1.watcher");
  UpdateNotifier routers(routing_, true);
  UpdateNotifier clients(routing_, false);
  clients.Logon("agent");
  routers.Logon("child");
  EXPECT_THAT(Notices(), ElementsAre("EM-RouterLogon of child"));
}

TEST_F(UpdateNotifierTest, AnAddressInTheConfigurationIsCutAfter4096Characters) {
  // Cut, it is the watcher's.
  const std::string cut = "router1.watcher" + std::string(4096 - 15, '.');
  for (const bool isRouters : {false, true}) {
    log_.Clear();
    MessageRouter::SetConfigString(isRouters ? "NotifyRouterUpdate" : "NotifyClientUpdate",
                                   cut + "x");
    UpdateNotifier notifier(routing_, isRouters);
    EXPECT_TRUE(log_.Contains("exceeds the maximum size 4096"));
    notifier.Logon("peer");
    EXPECT_EQ(Notices().size(), 1u);
  }
}

TEST_F(UpdateNotifierTest, AddressesOfAnyBytesSurviveTheConfiguration) {
  for (const std::string address :
       {"a,b", "a\nb", "\"quoted\"", "\xff\xfe", "a\\b", "[a]", "%41"}) {
    routing_.ClientUpdates().SetDestination(address);
    EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), address);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(UpdateNotifierTest, AnAddressThatCouldNotBeReadBackIsRefused) {
  Subscribe();
  const std::string longest(4096, 'a');
  routing_.ClientUpdates().SetDestination(longest + "a");
  EXPECT_TRUE(
      log_.Has(kLogError, "The address of a subscriber has 4097 characters, which is too many\n"));
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), "router1.watcher");
  routing_.ClientUpdates().SetDestination(longest);
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), longest);
}

TEST_F(UpdateNotifierTest, WithoutItsLockASubscriptionChangesNothingAndTheAskerIsNotToldThatItDid) {
  Subscribe();
  ThreadHelper::FailNextLocks(1);
  EXPECT_THROW(routing_.ClientUpdates().SetDestination("router1.other"),
               MessageRouter::SubscriberLockFailure);
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), "router1.watcher");
  routing_.ClientUpdates().Logon("agent");
  EXPECT_THAT(Notices(), ElementsAre("EM-ClientLogon of agent"));
}

TEST_F(UpdateNotifierTest, AnAddressThatNoEnvelopeCanHaveKeepsNobodyFromLoggingOn) {
  routing_.ClientUpdates().SetDestination("a\n[Type] b");
  AClient("agent");
  EXPECT_NO_THROW(routing_.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(),
                                           BrelixMessaging::NotifyConsumer::_nil(), 0));
  EXPECT_TRUE(log_.Contains("UpdateNotifier::Send: Caught "));
}

TEST_F(UpdateNotifierTest, ServantsEventsReachTheSubscriberOfTheirKind) {
  Subscribe();
  routing_.RegisterPeer("agent", false);
  routing_.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(),
                           BrelixMessaging::NotifyConsumer::_nil(), 0);
  routing_.LogoffPeer("agent");
  routing_.UnregisterPeer("agent", false);
  routing_.RegisterPeer("child", true);
  routing_.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(),
                           BrelixMessaging::RouterSupplier::_nil(),
                           BrelixMessaging::NotifyConsumer::_nil(), 0);
  routing_.LogoffPeer("child");
  routing_.UnregisterPeer("child", true);
  EXPECT_THAT(Notices(), ElementsAre("EM-ClientRegistered of agent", "EM-ClientLogon of agent",
                                     "EM-ClientLogoff of agent", "EM-ClientUnregistered of agent",
                                     "EM-RouterRegistered of child", "EM-RouterLogon of child",
                                     "EM-RouterLogoff of child", "EM-RouterUnregistered of child"));
}

TEST_F(UpdateNotifierTest, ASubscriberMayChangeWhileOthersAreTold) {
  std::latch start(2);
  std::jthread other([&] {
    start.arrive_and_wait();
    for (int i = 0; i < 20; ++i) routing_.ClientUpdates().Logon("agent");
  });
  start.arrive_and_wait();
  for (int i = 0; i < 20; ++i) {
    routing_.ClientUpdates().SetDestination(i % 2 == 0 ? "router1.watcher" : "");
  }
  other.join();
  for (const std::string& notice : Notices()) EXPECT_EQ(notice, "EM-ClientLogon of agent");
}

}  // namespace
}  // namespace TestSupport
