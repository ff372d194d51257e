#include "servants/Router_i.h"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <optional>
#include <vector>

#include "ServantWorld.h"
#include "broker/CallTimeout.h"
#include "broker/Gate.h"
#include "config/Configuration.h"
#include "support/FakePeers.h"

namespace ServantTests {
namespace {

using BrelixMessaging::AlreadyRegistered;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::NotifyConsumer_ptr;
using BrelixMessaging::NotifyConsumer_var;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::NotRegistered;
using BrelixMessaging::Rejected;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterConsumer_ptr;
using BrelixMessaging::RouterConsumer_var;
using BrelixMessaging::RouterSupplier;
using BrelixMessaging::RouterSupplier_ptr;
using BrelixMessaging::RouterSupplier_var;
using MessageRouter::kLogInfo;
using MessageRouter::kLogTrace;
using MessageRouter::kLogWarning;
using MessageRouter::RouterTableEntry;

constexpr char kFirewall[] =
    "child-1 is likely to be behind a firewall, causing slow message delivery\n";

class CallFromRouter : public CallFrom {
 public:
  explicit CallFromRouter(const std::string& name) : CallFrom(name, {kRouterRole}) {}
};

class RouterServantTest : public ServantWorld {
 protected:
  // What a logon handed out.
  RouterSupplier_var supplier;
  RouterConsumer_var consumer;
  NotifyConsumer_var notify;

  void Logon(RouterConsumer_ptr peerConsumer, RouterSupplier_ptr peerSupplier,
             NotifyConsumer_ptr peerNotify = NotifyConsumer::_nil()) {
    servant->Logon(peerConsumer, peerSupplier, peerNotify, supplier.out(), consumer.out(),
                   notify.out());
  }

  PortableServer::Servant_var<RouterServants::Router_i> servant{new RouterServants::Router_i};
  TestSupport::RouterPeer peerConsumer;
  TestSupport::SupplierPeer peerSupplier;
  TestSupport::NotifyPeer peerNotify;
};

TEST_F(RouterServantTest, RegisterMakesTheCallerAKnownRouter) {
  const CallFromRouter call("child-1");
  servant->Register();
  EXPECT_TRUE(Entry("child-1").IsRegistered());
  EXPECT_TRUE(Entry("child-1").IsRouter());
  EXPECT_TRUE(log.Has(kLogTrace, "Router::Register() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Registered router child-1\n"));
}

TEST_F(RouterServantTest, RegisterUnderThisRoutersOwnNameIsRejectedAndTheTableUnchanged) {
  const CallFromRouter call(kRouterName);
  EXPECT_THROW(servant->Register(), Rejected);
  EXPECT_EQ(table.Find(kRouterName), nullptr);
  EXPECT_TRUE(log.Has(kLogInfo, "Self registration by router-1 is illegal"));
}

TEST_F(RouterServantTest, ANameThatDiffersInCaseIsNotTheOwnOne) {
  const CallFromRouter call("ROUTER-1");
  servant->Register();
  EXPECT_TRUE(Entry("ROUTER-1").IsRegistered());
}

TEST_F(RouterServantTest, RegisterOfARegisteredNameRaisesAlreadyRegistered) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  EXPECT_THROW(servant->Register(), AlreadyRegistered);
}

TEST_F(RouterServantTest, EveryOperationIsRejectedForACallerThatIsNoRouter) {
  RegisterRouter("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Register(), Rejected);
  EXPECT_THROW(servant->Unregister(), Rejected);
  EXPECT_THROW(servant->Logoff(), Rejected);
  EXPECT_THROW(Logon(RouterConsumer::_nil(), peerSupplier.Reference()), Rejected);
  EXPECT_EQ(peerSupplier->heartbeats.count, 0);
  EXPECT_EQ(log.Lines().size(), 4u);  // the trace lines
}

TEST_F(RouterServantTest, ACallerWithoutACertificateIsRejected) {
  const AnonymousCall call;
  EXPECT_THROW(servant->Register(), Rejected);
}

TEST_F(RouterServantTest, UnregisterForgetsTheCaller) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  servant->Unregister();
  EXPECT_FALSE(Entry("child-1").IsRegistered());
  EXPECT_TRUE(log.Has(kLogTrace, "Router::Unregister() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Unregistered router child-1\n"));
}

TEST_F(RouterServantTest, UnregisterOfAnUnknownNameRaisesNotRegistered) {
  const CallFromRouter call("child-1");
  EXPECT_THROW(servant->Unregister(), NotRegistered);
}

TEST_F(RouterServantTest, LogoffEndsTheSession) {
  LogOnRouter("child-1");
  const CallFromRouter call("child-1");
  servant->Logoff();
  EXPECT_FALSE(Entry("child-1").IsLoggedOn());
  EXPECT_TRUE(log.Has(kLogTrace, "Router::Logoff() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged off child-1\n"));
}

TEST_F(RouterServantTest, LogoffWithoutALogonRaisesNotLoggedOn) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  EXPECT_THROW(servant->Logoff(), NotLoggedOn);
}

// Logon

TEST_F(RouterServantTest, LogonOfAnUnknownNameRaisesNotRegistered) {
  const CallFromRouter call("child-1");
  EXPECT_THROW(Logon(RouterConsumer::_nil(), RouterSupplier::_nil()), NotRegistered);
}

TEST_F(RouterServantTest, LogonWithoutObjectsGivesASupplierAndAConsumer) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  Logon(RouterConsumer::_nil(), RouterSupplier::_nil());
  EXPECT_FALSE(CORBA::is_nil(supplier));
  EXPECT_FALSE(CORBA::is_nil(consumer));
  EXPECT_TRUE(CORBA::is_nil(notify));
  EXPECT_TRUE(log.Has(kLogTrace, "Router::Logon() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on child-1 as a router\n"));
}

TEST_F(RouterServantTest, LogonWithConsumerAndSupplierGivesANotifier) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), peerSupplier.Reference(), peerNotify.Reference());
  EXPECT_TRUE(CORBA::is_nil(supplier));
  EXPECT_TRUE(CORBA::is_nil(consumer));
  EXPECT_FALSE(CORBA::is_nil(notify));
  EXPECT_TRUE(Entry("child-1").IsPassiveConsumer());
  EXPECT_TRUE(Entry("child-1").HasNotifyConsumer());
  EXPECT_EQ(peerNotify->count, 0);
  EXPECT_EQ(peerNotify->thresholdCalls.count, 0);
}

TEST_F(RouterServantTest, TheConsumerIsNotCalledBackByDefault) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), RouterSupplier::_nil());
  EXPECT_EQ(peerConsumer->heartbeats.count, 0);
}

TEST_F(RouterServantTest, WithoutLogonCallbackAnUnreachableConsumerIsKept) {
  RegisterRouter("child-1");
  peerConsumer->heartbeats.UnreachableFor(99);
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), RouterSupplier::_nil());
  EXPECT_TRUE(Entry("child-1").IsPassiveConsumer());
  EXPECT_FALSE(CORBA::is_nil(Entry("child-1").References().routerConsumer));
}

TEST_F(RouterServantTest, WithLogonCallbackAConsumerThatAnswersIsKept) {
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  peerConsumer->heartbeats.UnreachableFor(1);
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), RouterSupplier::_nil());
  EXPECT_EQ(peerConsumer->heartbeats.count, 2);
  EXPECT_TRUE(Entry("child-1").IsPassiveConsumer());
  EXPECT_TRUE(log.Has(kLogInfo, "Router::Logon() successfully called back to router consumer\n"));
  EXPECT_FALSE(log.Has(kLogWarning, kFirewall));
}

TEST_F(RouterServantTest, WithLogonCallbackAnUnreachableConsumerIsDropped) {
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  peerConsumer->heartbeats.UnreachableFor(2);
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), RouterSupplier::_nil());
  EXPECT_TRUE(Entry("child-1").IsLoggedOn());
  EXPECT_FALSE(Entry("child-1").IsPassiveConsumer());
  EXPECT_TRUE(log.Has(kLogWarning, "Router::Logon() failed to call back to router consumer\n"));
  EXPECT_TRUE(log.Has(kLogWarning, kFirewall));
}

TEST_F(RouterServantTest, WithLogonCallbackANilConsumerDrawsNoWarning) {
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  Logon(RouterConsumer::_nil(), RouterSupplier::_nil());
  EXPECT_FALSE(log.Contains("call back"));
  EXPECT_FALSE(log.Contains("firewall"));
}

TEST_F(RouterServantTest, AConsumerThatRefusesTheCallBackIsNotCalledAgain) {
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  peerConsumer->heartbeats.onCall = [](int) { throw Rejected(); };
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), RouterSupplier::_nil());
  EXPECT_EQ(peerConsumer->heartbeats.count, 1);
  EXPECT_FALSE(Entry("child-1").IsPassiveConsumer());
}

TEST_F(RouterServantTest, TheSupplierIsCalledBackWhateverLogonCallbackSays) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  for (const std::uint32_t value : {0u, 1u}) {
    MessageRouter::SetConfigInt("LogonCallback", value);
    Logon(RouterConsumer::_nil(), peerSupplier.Reference());
  }
  EXPECT_EQ(peerSupplier->heartbeats.count, 2);
  EXPECT_EQ(log.Count("Router::Logon() successfully called back to router supplier\n"), 2u);
}

TEST_F(RouterServantTest, ACallBackLastsAMinuteAtMost) {
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  std::vector<std::optional<std::chrono::milliseconds>> limits;
  const auto note = [&](int) { limits.push_back(Broker::CallTimeout::Left()); };
  peerConsumer->heartbeats.onCall = note;
  peerSupplier->heartbeats.onCall = note;
  const CallFromRouter call("child-1");
  Logon(peerConsumer.Reference(), peerSupplier.Reference());
  EXPECT_THAT(limits, testing::ElementsAre(kAMinute, kAMinute));
  EXPECT_EQ(peerSupplier->heartbeats.count, 1);
}

TEST_F(RouterServantTest, AnUnreachableSupplierIsDroppedAndTheLogonSucceeds) {
  RegisterRouter("child-1");
  peerSupplier->heartbeats.UnreachableFor(2);
  const CallFromRouter call("child-1");
  Logon(RouterConsumer::_nil(), peerSupplier.Reference());
  EXPECT_TRUE(Entry("child-1").IsLoggedOn());
  EXPECT_TRUE(CORBA::is_nil(Entry("child-1").References().routerSupplier));
  EXPECT_EQ(Entry("child-1").GetSupplierState(), RouterTableEntry::kActiveSupplier);
  EXPECT_TRUE(log.Has(kLogWarning, "Router::Logon() failed to call back to router supplier\n"));
  EXPECT_FALSE(log.Contains("firewall"));
}

TEST_F(RouterServantTest, ASupplierThatAnswersIsPolledAtOnce) {
  RegisterRouter("child-1");
  const CallFromRouter call("child-1");
  Logon(RouterConsumer::_nil(), peerSupplier.Reference());
  EXPECT_FALSE(CORBA::is_nil(Entry("child-1").References().routerSupplier));
  EXPECT_EQ(host.polled, std::vector<std::string>{"child-1"});
}

// With one place for all, another operation runs while the peer's objects are called back.
TEST_F(RouterServantTest, TheCallBacksGiveUpTheirPlaceAtTheGate) {
  Broker::Gate::SetWidth(1);
  MessageRouter::SetConfigInt("LogonCallback", 1);
  RegisterRouter("child-1");
  std::vector<std::future<void>> others;  // outlive the call, which one that is kept out waits for
  const auto pass = [&others](int) {
    others.push_back(std::async(std::launch::async, [] { const Broker::Gate::Pass inside; }));
    EXPECT_EQ(others.back().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  };
  peerConsumer->heartbeats.onCall = pass;
  peerSupplier->heartbeats.onCall = pass;
  {
    const CallFromRouter call("child-1");
    Logon(peerConsumer.Reference(), peerSupplier.Reference());
  }
  Broker::Gate::SetWidth(4);
  EXPECT_EQ(others.size(), 2u);
}

TEST_F(RouterServantTest, ANameWithAnEncodedLineEndMakesNoLineOfItsOwn) {
  const std::string name = "a+AAo-Registered router x";
  RegisterRouter(name);
  const CallFromRouter call(name);
  Logon(RouterConsumer::_nil(), RouterSupplier::_nil());
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on a?Registered router x as a router\n"));
}

TEST_F(RouterServantTest, AnEntryThatIsGoneAfterTheLogonIsRejected) {
  RegisterRouter("child-1");
  host.onOffer = [this] { table.Clear(); };
  const CallFromRouter call("child-1");
  EXPECT_THROW(Logon(RouterConsumer::_nil(), RouterSupplier::_nil()), Rejected);
  EXPECT_FALSE(log.Contains("Logged on"));
}

}  // namespace
}  // namespace ServantTests
