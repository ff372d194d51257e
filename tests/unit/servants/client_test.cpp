#include "servants/Client_i.h"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <vector>

#include "ServantWorld.h"
#include "broker/CallTimeout.h"
#include "broker/Gate.h"
#include "servants/ServantHelper.h"
#include "support/FakePeers.h"

namespace ServantTests {
namespace {

using BrelixMessaging::AlreadyRegistered;
using BrelixMessaging::EnvelopeConsumer;
using BrelixMessaging::EnvelopeConsumer_ptr;
using BrelixMessaging::EnvelopeSupplier_var;
using BrelixMessaging::MessageConsumer;
using BrelixMessaging::MessageConsumer_var;
using BrelixMessaging::NoEnvelope;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::NotifyConsumer_ptr;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::NotRegistered;
using BrelixMessaging::Rejected;
using BrelixMessaging::UnreachableConsumer;
using MessageRouter::kLogInfo;
using MessageRouter::kLogTrace;
using MessageRouter::kLogWarning;
using MessageRouter::RouterTableEntry;

class ClientTest : public ServantWorld {
 protected:
  // What a logon handed out.
  MessageConsumer_var consumer;
  EnvelopeSupplier_var supplier;

  void Logon(EnvelopeConsumer_ptr peer, NotifyConsumer_ptr notify = NotifyConsumer::_nil()) {
    servant->Logon(peer, notify, consumer.out(), supplier.out());
  }
  void LogonPushPush(EnvelopeConsumer_ptr peer) { servant->LogonPushPush(peer, consumer.out()); }
  void LogonPushPull(NotifyConsumer_ptr notify) {
    servant->LogonPushPull(notify, consumer.out(), supplier.out());
  }

  PortableServer::Servant_var<RouterServants::Client_i> servant{new RouterServants::Client_i};
  TestSupport::ClientPeer peer;
  TestSupport::NotifyPeer notifier;
};

// Registration

TEST_F(ClientTest, RegisterMakesTheCallerKnown) {
  const CallFrom call("agent-1");
  servant->Register();
  EXPECT_TRUE(Entry("agent-1").IsRegistered());
  EXPECT_FALSE(Entry("agent-1").IsRouter());
  EXPECT_FALSE(Entry("agent-1").IsLoggedOn());
  EXPECT_TRUE(log.Has(kLogTrace, "Client::Register() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Registered client agent-1\n"));
}

TEST_F(ClientTest, RegisterOfARegisteredNameRaisesAlreadyRegistered) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Register(), AlreadyRegistered);
  EXPECT_FALSE(log.Contains("Registered client"));
}

TEST_F(ClientTest, RegisterWithoutACertificateIsRejected) {
  const AnonymousCall call;
  EXPECT_THROW(servant->Register(), Rejected);
}

TEST_F(ClientTest, RegisterWhileNoCycleRunsIsRejected) {
  MessageRouter::Cycle::Set(nullptr);
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Register(), Rejected);
}

TEST_F(ClientTest, RegisterOfACertificationEntryRegistersThatEntry) {
  table.AddCertificationEntry("agent-1");
  RouterTableEntry* entry = table.Find("agent-1");
  ASSERT_NE(entry, nullptr);
  ASSERT_FALSE(entry->IsRegistered());
  const CallFrom call("agent-1");
  servant->Register();
  EXPECT_EQ(table.Find("agent-1"), entry);
  EXPECT_TRUE(entry->IsRegistered());
}

TEST_F(ClientTest, UnregisterForgetsTheCaller) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  servant->Unregister();
  EXPECT_FALSE(Entry("agent-1").IsRegistered());
  EXPECT_TRUE(log.Has(kLogTrace, "Client::Unregister() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Unregistered client agent-1\n"));
}

TEST_F(ClientTest, UnregisterOfAnUnknownNameRaisesNotRegistered) {
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Unregister(), NotRegistered);
}

TEST_F(ClientTest, LogoffEndsTheSession) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  servant->Logoff();
  EXPECT_FALSE(Entry("agent-1").IsLoggedOn());
  EXPECT_TRUE(Entry("agent-1").IsRegistered());
  EXPECT_TRUE(log.Has(kLogTrace, "Client::Logoff() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged off agent-1\n"));
}

TEST_F(ClientTest, LogoffWithoutALogonRaisesNotLoggedOn) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Logoff(), NotLoggedOn);
}

TEST_F(ClientTest, LogoffOfAnUnknownNameRaisesNotRegistered) {
  const CallFrom call("agent-1");
  EXPECT_THROW(servant->Logoff(), NotRegistered);
}

// Logon

TEST_F(ClientTest, LogonWithNeitherConsumerNorNotifierIsAPurePullerWithoutNotification) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(EnvelopeConsumer::_nil());
  EXPECT_EQ(Entry("agent-1").GetLogonState(), RouterTableEntry::kLoggedOn);
  EXPECT_EQ(Entry("agent-1").GetConsumerState(), RouterTableEntry::kNoNotification);
  EXPECT_FALSE(CORBA::is_nil(consumer));
  EXPECT_FALSE(CORBA::is_nil(supplier));
  EXPECT_FALSE(log.Contains("call back"));
  EXPECT_FALSE(log.Contains("called back"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on agent-1 as a client\n"));
}

TEST_F(ClientTest, LogonWithAConsumerThatAnswersIsAPush) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  EXPECT_EQ(peer->heartbeats.count, 1);
  EXPECT_TRUE(Entry("agent-1").IsPassiveConsumer());
  EXPECT_FALSE(CORBA::is_nil(consumer));
  EXPECT_TRUE(CORBA::is_nil(supplier));
  EXPECT_TRUE(log.Has(kLogTrace, "Client::Logon() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Client::Logon() successfully called back to client\n"));
}

TEST_F(ClientTest, LogonWithAConsumerThatFailsTwiceSucceedsWithoutIt) {
  RegisterClient("agent-1");
  peer->heartbeats.UnreachableFor(2);
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  EXPECT_EQ(peer->heartbeats.count, 2);
  EXPECT_TRUE(Entry("agent-1").IsLoggedOn());
  EXPECT_FALSE(Entry("agent-1").IsPassiveConsumer());
  EXPECT_TRUE(CORBA::is_nil(Entry("agent-1").References().messageConsumer));
  EXPECT_FALSE(CORBA::is_nil(supplier));
  EXPECT_TRUE(log.Has(kLogWarning, "Client::Logon() failed to call back to client\n"));
  EXPECT_FALSE(log.Contains("successfully"));
}

TEST_F(ClientTest, ACallBackLastsAMinuteAtMost) {
  RegisterClient("agent-1");
  std::vector<std::optional<std::chrono::milliseconds>> limits;
  peer->heartbeats.onCall = [&](int) { limits.push_back(Broker::CallTimeout::Left()); };
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  LogonPushPush(peer.Reference());
  EXPECT_THAT(limits, testing::ElementsAre(kAMinute, kAMinute));
}

TEST_F(ClientTest, LogonWithAConsumerThatFailsOnceCallsTwiceAndLogsOneSuccess) {
  RegisterClient("agent-1");
  peer->heartbeats.UnreachableFor(1);
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  EXPECT_EQ(peer->heartbeats.count, 2);
  EXPECT_TRUE(Entry("agent-1").IsPassiveConsumer());
  EXPECT_EQ(log.Count("Client::Logon() successfully called back to client\n"), 1u);
  EXPECT_FALSE(log.Contains("failed to call back"));
}

TEST_F(ClientTest, ThePeerIsTriedBeforeItsOldSessionIsThrownAway) {
  LogOnClient("agent-1");
  const auto before = Entry("agent-1").Generation();
  peer->heartbeats.onCall = [&](int) { EXPECT_EQ(Entry("agent-1").Generation(), before); };
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  EXPECT_EQ(peer->heartbeats.count, 1);
  EXPECT_NE(Entry("agent-1").Generation(), before);
}

// With one place for all, another operation runs while the peer is called back.
TEST_F(ClientTest, TheCallBackGivesUpItsPlaceAtTheGate) {
  Broker::Gate::SetWidth(1);
  RegisterClient("agent-1");
  bool passed = false;
  peer->heartbeats.onCall = [&](int) {
    auto other = std::async(std::launch::async, [] { const Broker::Gate::Pass pass; });
    passed = other.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  };
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  Broker::Gate::SetWidth(4);
  EXPECT_TRUE(passed);
}

TEST_F(ClientTest, LogonOfAnUnknownNameRaisesNotRegistered) {
  const CallFrom call("agent-1");
  EXPECT_THROW(Logon(EnvelopeConsumer::_nil()), NotRegistered);
}

TEST_F(ClientTest, ASecondLogonNeedsNoLogoff) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(EnvelopeConsumer::_nil());
  const MessageConsumer_var first = MessageConsumer::_duplicate(consumer);
  Logon(EnvelopeConsumer::_nil());
  EXPECT_FALSE(first->_is_equivalent(consumer));
  EXPECT_THROW(first->Heartbeat(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(ClientTest, AnEntryThatIsGoneAfterTheLogonIsRejected) {
  RegisterClient("agent-1");
  host.onOffer = [this] { table.Clear(); };
  const CallFrom call("agent-1");
  EXPECT_THROW(Logon(EnvelopeConsumer::_nil()), Rejected);
  EXPECT_FALSE(log.Contains("Logged on"));
}

TEST_F(ClientTest, TheLogonLineShowsTheNameDecoded) {
  const std::string name = "caf+AOk-";
  RegisterClient(name);
  const CallFrom call(name);
  Logon(EnvelopeConsumer::_nil());
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on caf\xC3\xA9 as a client\n"));
  EXPECT_TRUE(Entry(name).IsLoggedOn());
}

TEST_F(ClientTest, ANameWithAnEncodedLineEndMakesNoLineOfItsOwn) {
  const std::string name = "a+AAo-Registered router x";
  RegisterClient(name);
  const CallFrom call(name);
  Logon(EnvelopeConsumer::_nil());
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on a?Registered router x as a client\n"));
}

TEST_F(ClientTest, OtherLinesShowTheNameAsItStands) {
  const std::string name = "caf+AOk-";
  const CallFrom call(name);
  servant->Register();
  EXPECT_TRUE(log.Has(kLogInfo, "Registered client caf+AOk-\n"));
}

TEST_F(ClientTest, ALogonOffersWhatWaits) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(peer.Reference());
  EXPECT_EQ(host.sent, std::vector<std::string>{"agent-1"});
}

TEST_F(ClientTest, ALogonWithANotifierGoesToTheThresholdThread) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(EnvelopeConsumer::_nil(), notifier.Reference());
  EXPECT_EQ(host.threshold, std::vector<std::string>{"agent-1"});
  EXPECT_TRUE(host.sent.empty());
}

TEST_F(ClientTest, TheObjectsOfALogonServeItsClient) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  Logon(EnvelopeConsumer::_nil());
  EXPECT_NO_THROW(consumer->Heartbeat());
  EXPECT_THROW(supplier->GetEnvelope(), NoEnvelope);
}

// LogonPushPush

TEST_F(ClientTest, LogonPushPushWithANilConsumerRaisesUnreachableConsumer) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(LogonPushPush(EnvelopeConsumer::_nil()), UnreachableConsumer);
  EXPECT_FALSE(Entry("agent-1").IsLoggedOn());
  EXPECT_FALSE(log.Contains("successfully"));
  EXPECT_EQ(log.Count("Client::LogonPushPush() failed to call back to client\n"), 1u);
}

TEST_F(ClientTest, LogonPushPushLogsItsWarningTwiceAfterAFailedTest) {
  RegisterClient("agent-1");
  peer->heartbeats.UnreachableFor(2);
  const CallFrom call("agent-1");
  EXPECT_THROW(LogonPushPush(peer.Reference()), UnreachableConsumer);
  EXPECT_EQ(log.Count("Client::LogonPushPush() failed to call back to client\n"), 2u);
  EXPECT_FALSE(Entry("agent-1").IsLoggedOn());
}

TEST_F(ClientTest, ARefusedLogonPushPushLeavesTheOldSessionAlone) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(LogonPushPush(EnvelopeConsumer::_nil()), UnreachableConsumer);
  EXPECT_TRUE(Entry("agent-1").IsLoggedOn());
}

TEST_F(ClientTest, LogonPushPushWithAConsumerThatAnswersIsAPush) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  LogonPushPush(peer.Reference());
  EXPECT_TRUE(Entry("agent-1").IsPassiveConsumer());
  EXPECT_FALSE(CORBA::is_nil(consumer));
  EXPECT_TRUE(log.Has(kLogTrace, "Client::LogonPushPush() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Client::LogonPushPush() successfully called back to client\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on agent-1 as a client\n"));
}

TEST_F(ClientTest, LogonPushPushOfAnUnknownNameRaisesNotRegistered) {
  const CallFrom call("agent-1");
  EXPECT_THROW(LogonPushPush(peer.Reference()), NotRegistered);
}

// LogonPushPull

TEST_F(ClientTest, LogonPushPullMakesAPullerAndDoesNotCallTheNotifier) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  LogonPushPull(notifier.Reference());
  EXPECT_EQ(Entry("agent-1").GetConsumerState(), RouterTableEntry::kNothingSent);
  EXPECT_EQ(notifier->count, 0);
  EXPECT_EQ(notifier->thresholdCalls.count, 0);
  EXPECT_FALSE(CORBA::is_nil(consumer));
  EXPECT_FALSE(CORBA::is_nil(supplier));
  EXPECT_TRUE(log.Has(kLogTrace, "Client::LogonPushPull() called\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Logged on agent-1 as a client\n"));
}

TEST_F(ClientTest, LogonPushPullWorksWithoutANotifier) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  LogonPushPull(NotifyConsumer::_nil());
  EXPECT_EQ(Entry("agent-1").GetConsumerState(), RouterTableEntry::kNoNotification);
}

// Faults

TEST_F(ClientTest, ACertificateWithoutACommonNameIsRejectedAndLogged) {
  const NamelessCall call;
  EXPECT_THROW(servant->Register(), Rejected);
  EXPECT_TRUE(log.Has(MessageRouter::kLogError,
                      "Client::Register() caught No common name in certificate\n"));
}

TEST_F(ClientTest, ALogonWithoutServantHelperIsRejectedAndLogged) {
  RegisterClient("agent-1");
  RouterServants::DestroyServantHelper();
  const CallFrom call("agent-1");
  EXPECT_THROW(Logon(EnvelopeConsumer::_nil()), Rejected);
  EXPECT_TRUE(
      log.Has(MessageRouter::kLogError, "Client::Logon() caught ServantHelper not initialized\n"));
}

TEST_F(ClientTest, ALogonAfterWhichTheRouterHasAFaultCountsAndTheFaultIsLogged) {
  RegisterClient("agent-1");
  host.onOffer = [] { throw std::runtime_error("pool is gone"); };
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(Logon(EnvelopeConsumer::_nil()));
  EXPECT_TRUE(Entry("agent-1").IsLoggedOn());
  EXPECT_TRUE(
      log.Has(MessageRouter::kLogError, "Routing::LogonClientPeer: Caught pool is gone agent-1\n"));
}

}  // namespace
}  // namespace ServantTests
