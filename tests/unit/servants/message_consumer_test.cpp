#include <gtest/gtest.h>

#include <filesystem>

#include "ServantWorld.h"
#include "servants/ClientMessageConsumer_i.h"
#include "support/FakeClock.h"

namespace ServantTests {
namespace {

using BrelixMessaging::IllegalMessageType;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::Rejected;
using MessageRouter::Envelope;
using MessageRouter::kLogTrace;
using MessageRouter::RouterTableEntry;
using RouterServants::ClientMessageConsumer_i;

// Writes fail, as on a full disk.
class FullStore : public MessageRouter::EnvelopeStore {
 public:
  using EnvelopeStore::EnvelopeStore;
  int Write(const std::string&, const std::string&) override { return 28; }  // no space left
};

class MessageConsumerTest : public ServantWorld {
 protected:
  // Where the envelope of the last SendMessage waits for its route.
  CORBA::Long Send(const std::string& type = "Text") {
    return servant->SendMessage(AMessage(type));
  }

  PortableServer::Servant_var<ClientMessageConsumer_i> servant{new ClientMessageConsumer_i};
};

TEST_F(MessageConsumerTest, SendMessageStoresTheMessageAndQueuesItForRouting) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  Send();
  EXPECT_EQ(routing.RouteQueueSize(), 1u);
  EXPECT_EQ(EnvelopeFiles(), 1u);
  EXPECT_TRUE(log.Has(kLogTrace, "ClientMessageConsumer::SendMessage() called\n"));
}

TEST_F(MessageConsumerTest, TheIdOfSendMessageServesForCancel) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  const CORBA::Long id = Send();
  EXPECT_TRUE(servant->Cancel("", id));
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
  EXPECT_EQ(EnvelopeFiles(), 0u);
  EXPECT_TRUE(log.Has(kLogTrace, "ClientMessageConsumer::Cancel() called\n"));
}

TEST_F(MessageConsumerTest, TheEnvelopeBearsTheCallersNameAndCertificate) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  RegisterClient("agent-2");
  Send();
  routing.RouteNext(0, 1);
  Envelope envelope;
  ASSERT_TRUE(Entry("agent-2").PeekNext(envelope, "agent-2"));
  EXPECT_EQ(envelope.Originator(), "router-1.agent-1");
  EXPECT_EQ(envelope.GetOriginatorCert(), CertificateText("agent-1"));
}

TEST_F(MessageConsumerTest, SystemTypesAreIllegalInUpperAndLowerCase) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  for (const char* type : {"MS-Anything", "ms-anything", "Ms", "mS"}) {
    EXPECT_THROW(Send(type), IllegalMessageType) << type;
  }
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(MessageConsumerTest, TheTypesMAndEmptyPass) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(Send("M"));
  EXPECT_NO_THROW(Send(""));
  EXPECT_EQ(routing.RouteQueueSize(), 2u);
}

TEST_F(MessageConsumerTest, ATypeThatOnlyTheManagerMaySendIsRejectedAndNothingIsLeft) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(Send("EM-DoAction"), Rejected);
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(MessageConsumerTest, AMessageThatCannotBeStoredIsRejectedAndNothingIsLeft) {
  FullStore full((configuration.Folder() / "Full/").string());
  MessageRouter::EnvelopeStore::Replace(&full);
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(Send(), Rejected);
  MessageRouter::EnvelopeStore::Replace(&store);
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(full.Directory()));
  EXPECT_TRUE(log.Contains("ClientMessageConsumer::SendMessage() caught "));
  EXPECT_NO_THROW(Send());  // there is room again
}

TEST_F(MessageConsumerTest, ANameThatIsLoggedOffIsNotLoggedOn) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(Send(), NotLoggedOn);
  EXPECT_THROW(servant->Heartbeat(), NotLoggedOn);
  EXPECT_THROW(servant->Cancel("agent-2", 1), NotLoggedOn);
}

TEST_F(MessageConsumerTest, ANameThatIsNotInTheTableIsRejected) {
  const CallFrom call("agent-1");
  EXPECT_THROW(Send(), Rejected);
  EXPECT_THROW(servant->Heartbeat(), Rejected);
  EXPECT_THROW(servant->Cancel("agent-2", 1), Rejected);
}

TEST_F(MessageConsumerTest, ACallerWithoutACertificateIsRejected) {
  const AnonymousCall call;
  EXPECT_THROW(Send(), Rejected);
}

TEST_F(MessageConsumerTest, WhileNoCycleRunsCallersAreRejected) {
  LogOnClient("agent-1");
  MessageRouter::Cycle::Set(nullptr);
  const CallFrom call("agent-1");
  EXPECT_THROW(Send(), Rejected);
}

TEST_F(MessageConsumerTest, ALogonForCertificationCountsAsLoggedOn) {
  table.AddCertificationEntry("agent-1");
  Entry("agent-1").LogonCertification("agent-1");
  ASSERT_EQ(Entry("agent-1").GetLogonState(), RouterTableEntry::kCertification);
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(Send());
}

TEST_F(MessageConsumerTest, AReservedEntryCountsAsLoggedOn) {
  table.AddCertificationEntry("agent-1");
  std::vector<Envelope> leftovers;
  ASSERT_TRUE(Entry("agent-1").TakeOver("agent-1", leftovers));
  ASSERT_EQ(Entry("agent-1").GetLogonState(), RouterTableEntry::kCertificationReserved);
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(Send());
}

TEST_F(MessageConsumerTest, HeartbeatTellsALoggedOnClientThatItIsKnown) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(servant->Heartbeat());
  EXPECT_TRUE(log.Has(kLogTrace, "ClientMessageConsumer::Heartbeat() called\n"));
}

TEST_F(MessageConsumerTest, HeartbeatDoesNotCountAsAPull) {
  TestSupport::FakeClock clock;
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  clock.Advance(std::chrono::seconds(1801));
  ASSERT_TRUE(Entry("child-1").PullTimedOut());
  servant->Heartbeat();
  EXPECT_TRUE(Entry("child-1").PullTimedOut());
}

// Cancel

TEST_F(MessageConsumerTest, CancelFindsAMessageInTheQueueOfTheAddressedNeighbour) {
  LogOnClient("agent-1");
  RegisterClient("agent-2");
  const auto id = static_cast<CORBA::Long>(QueueFor("agent-2", "agent-1"));
  const CallFrom call("agent-1");
  EXPECT_TRUE(servant->Cancel("agent-2.further.down", id));
  EXPECT_FALSE(Entry("agent-2").HasEnvelopes());
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(MessageConsumerTest, CancelOfAnotherOriginatorsMessageRemovesNothing) {
  LogOnClient("agent-1");
  RegisterClient("agent-2");
  const auto id = static_cast<CORBA::Long>(QueueFor("agent-2", "agent-3"));
  const CallFrom call("agent-1");
  EXPECT_FALSE(servant->Cancel("agent-2", id));
  EXPECT_TRUE(Entry("agent-2").HasEnvelopes());
  EXPECT_EQ(EnvelopeFiles(), 1u);
}

TEST_F(MessageConsumerTest, CancelWithAnUnknownFirstComponentLooksInTheParentsQueue) {
  LogOnClient("agent-1");
  table.AddParent("boss");
  const auto id = static_cast<CORBA::Long>(QueueFor("boss", "agent-1"));
  const CallFrom call("agent-1");
  EXPECT_TRUE(servant->Cancel("far-away.agent-7", id));
  EXPECT_FALSE(Entry("boss").HasEnvelopes());
}

TEST_F(MessageConsumerTest, CancelWithAnUnknownFirstComponentAndNoParentIsFalse) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_FALSE(servant->Cancel("far-away", 1));
}

TEST_F(MessageConsumerTest, CancelInTheRouteQueueNeedsNoRightAddress) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  const CORBA::Long id = Send();
  EXPECT_TRUE(servant->Cancel("nobody.knows", id));
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(MessageConsumerTest, ASecondCancelIsFalse) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  const CORBA::Long id = Send();
  ASSERT_TRUE(servant->Cancel("agent-2", id));
  EXPECT_FALSE(servant->Cancel("agent-2", id));
}

}  // namespace
}  // namespace ServantTests
