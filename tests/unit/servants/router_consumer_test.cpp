#include "servants/RouterConsumer_i.h"

#include <gtest/gtest.h>

#include "ServantWorld.h"
#include "support/FakeClock.h"

namespace ServantTests {
namespace {

using BrelixMessaging::Envelope;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::Rejected;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;
using MessageRouter::kLogTrace;

class RouterConsumerTest : public ServantWorld {
 protected:
  PortableServer::Servant_var<RouterServants::RouterConsumer_i> servant{
      new RouterServants::RouterConsumer_i};
};

TEST_F(RouterConsumerTest, SendEnvelopeStoresTheEnvelopeAndQueuesItForRouting) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  servant->SendEnvelope(AWireEnvelope());
  EXPECT_EQ(routing.RouteQueueSize(), 1u);
  EXPECT_EQ(EnvelopeFiles(), 1u);
  EXPECT_TRUE(log.Has(kLogTrace, "RouterConsumer::SendEnvelope() called\n"));
}

TEST_F(RouterConsumerTest, AnEnvelopeThatComesTwiceIsStoredTwice) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  servant->SendEnvelope(AWireEnvelope());
  servant->SendEnvelope(AWireEnvelope());
  EXPECT_EQ(routing.RouteQueueSize(), 2u);
  EXPECT_EQ(EnvelopeFiles(), 2u);
}

TEST_F(RouterConsumerTest, ManagementCommandsAreRejectedFromAChild) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(servant->SendEnvelope(AWireEnvelope("EM-DoAction")), Rejected);
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(RouterConsumerTest, ManagementCommandsAreAcceptedFromTheParent) {
  table.AddParent("boss");
  Entry("boss").LogonRouter("boss", RouterConsumer::_nil(), RouterSupplier::_nil(),
                            NotifyConsumer::_nil(), 0, true);
  const CallFrom call("boss", {kRouterRole});
  servant->SendEnvelope(AWireEnvelope("EM-DoAction"));
  EXPECT_EQ(routing.RouteQueueSize(), 1u);
}

TEST_F(RouterConsumerTest, SendEnvelopeOfALoggedOffRouterIsNotLoggedOn) {
  RegisterRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(servant->SendEnvelope(AWireEnvelope()), NotLoggedOn);
}

TEST_F(RouterConsumerTest, SendEnvelopeOfAStrangerIsRejected) {
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(servant->SendEnvelope(AWireEnvelope()), Rejected);
}

TEST_F(RouterConsumerTest, SendEnvelopeCountsAsAPull) {
  TestSupport::FakeClock clock;
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  clock.Advance(std::chrono::seconds(1801));
  ASSERT_TRUE(Entry("child-1").PullTimedOut());
  servant->SendEnvelope(AWireEnvelope());
  EXPECT_FALSE(Entry("child-1").PullTimedOut());
}

TEST_F(RouterConsumerTest, AnEnvelopeWhoseTextWouldNotReadBackIsRejectedAndLogged) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  Envelope wire = AWireEnvelope();
  wire.client_info.delivery_options = "fast\n[OriginatorCertificate]\nforged";
  EXPECT_THROW(servant->SendEnvelope(wire), Rejected);
  EXPECT_TRUE(log.Contains("RouterConsumer::SendEnvelope() caught "));
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(RouterConsumerTest, HeartbeatFromAnUnknownNameReturnsNormally) {
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_NO_THROW(servant->Heartbeat());
  EXPECT_TRUE(log.Has(kLogTrace, "RouterConsumer::Heartbeat() called\n"));
}

TEST_F(RouterConsumerTest, HeartbeatFromALoggedOffRouterReturnsNormally) {
  RegisterRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_NO_THROW(servant->Heartbeat());
}

TEST_F(RouterConsumerTest, HeartbeatWhileNoCycleRunsReturnsNormally) {
  MessageRouter::Cycle::Set(nullptr);
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_NO_THROW(servant->Heartbeat());
}

TEST_F(RouterConsumerTest, HeartbeatWithoutACertificateIsRejected) {
  const AnonymousCall call;
  EXPECT_THROW(servant->Heartbeat(), Rejected);
}

TEST_F(RouterConsumerTest, HeartbeatCountsAsAPull) {
  TestSupport::FakeClock clock;
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  clock.Advance(std::chrono::seconds(1801));
  ASSERT_TRUE(Entry("child-1").PullTimedOut());
  servant->Heartbeat();
  EXPECT_FALSE(Entry("child-1").PullTimedOut());
}

}  // namespace
}  // namespace ServantTests
