#include "servants/NotifyConsumer_i.h"

#include <gtest/gtest.h>

#include "ServantWorld.h"
#include "config/Configuration.h"
#include "support/FakePeers.h"

namespace ServantTests {
namespace {

using MessageRouter::kLogDebug;
using MessageRouter::kLogTrace;
using MessageRouter::RouterTableEntry;

class NotifyConsumerTest : public ServantWorld {
 protected:
  ~NotifyConsumerTest() override { RouterServants::SetThresholdCallObserver(nullptr); }

  TestSupport::SupplierPeer peerSupplier;
  PortableServer::Servant_var<RouterServants::NotifyConsumer_i> servant{
      new RouterServants::NotifyConsumer_i};
};

TEST_F(NotifyConsumerTest, NotifyFromAPolledPeerQueuesAPoll) {
  LogOnRouter("child-1", peerSupplier.Reference());
  const CallFrom call("child-1", {kRouterRole});
  servant->Notify();
  EXPECT_EQ(host.polled, std::vector<std::string>{"child-1"});
  EXPECT_EQ(Entry("child-1").GetSupplierState(), RouterTableEntry::kPollNotified);
  EXPECT_TRUE(log.Has(kLogTrace, "NotifyConsumer::Notify() called\n"));
  EXPECT_TRUE(log.Has(kLogDebug, "NotifyConsumer_i::Notify() notified by child-1\n"));
}

TEST_F(NotifyConsumerTest, ASecondNotifyBeforeThePollHasNoEffect) {
  LogOnRouter("child-1", peerSupplier.Reference());
  const CallFrom call("child-1", {kRouterRole});
  servant->Notify();
  servant->Notify();
  EXPECT_EQ(host.polled.size(), 1u);
}

TEST_F(NotifyConsumerTest, NotifyFromAnActiveSupplierHasNoEffect) {
  LogOnRouter("child-1");
  ASSERT_EQ(Entry("child-1").GetSupplierState(), RouterTableEntry::kActiveSupplier);
  const CallFrom call("child-1", {kRouterRole});
  servant->Notify();
  EXPECT_TRUE(host.polled.empty());
  EXPECT_EQ(Entry("child-1").GetSupplierState(), RouterTableEntry::kActiveSupplier);
}

TEST_F(NotifyConsumerTest, NotifyFromAPeerThatIsLoggedOffIsToldAndPollsNothing) {
  RegisterRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  servant->Notify();
  EXPECT_TRUE(host.polled.empty());
  EXPECT_TRUE(log.Has(kLogDebug, "NotifyConsumer_i::Notify() notified by child-1\n"));
}

// The name leads to the entry of the parent, which has another one by now.
TEST_F(NotifyConsumerTest, NotifyUnderAFormerNameOfTheParentIsDroppedWithoutAWord) {
  table.AddParent("boss");
  ASSERT_NE(table.Parent(), nullptr);
  table.SetParentName("new boss");
  ASSERT_EQ(table.Find("boss"), table.Parent());
  log.Clear();
  const CallFrom call("boss", {kRouterRole});
  servant->Notify();
  EXPECT_TRUE(host.polled.empty());
  EXPECT_EQ(log.Lines().size(), 1u);  // the trace line
}

TEST_F(NotifyConsumerTest, NotifyFromAStrangerIsDroppedWithoutAWord) {
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_NO_THROW(servant->Notify());
  EXPECT_EQ(log.Lines().size(), 1u);  // the trace line
}

TEST_F(NotifyConsumerTest, NotifyReturnsNormallyWithoutACertificateAndWithoutACycle) {
  {
    const AnonymousCall call;
    EXPECT_NO_THROW(servant->Notify());
  }
  MessageRouter::Cycle::Set(nullptr);
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_NO_THROW(servant->Notify());
}

TEST_F(NotifyConsumerTest, TheThresholdIsZeroByDefault) {
  EXPECT_EQ(servant->NotificationThreshold(), 0);
  EXPECT_TRUE(log.Has(kLogTrace, "NotifyConsumer::NotificationThreshold() called\n"));
}

TEST_F(NotifyConsumerTest, TheThresholdIsReadAtEachCall) {
  MessageRouter::SetConfigInt("NotifyThreshold", 7);
  EXPECT_EQ(servant->NotificationThreshold(), 7);
  MessageRouter::SetConfigInt("NotifyThreshold", 9);
  EXPECT_EQ(servant->NotificationThreshold(), 9);
}

TEST_F(NotifyConsumerTest, AThresholdCallIsToldToItsObserverWhoeverCalls) {
  int told = 0;
  RouterServants::SetThresholdCallObserver([&] { ++told; });
  const AnonymousCall call;
  servant->NotificationThreshold();
  EXPECT_EQ(told, 1);
  RouterServants::SetThresholdCallObserver(nullptr);
  servant->NotificationThreshold();
  EXPECT_EQ(told, 1);
}

}  // namespace
}  // namespace ServantTests
