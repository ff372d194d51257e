#include "parent/HeartbeatThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>

#include "logging/Log.h"
#include "support/FakePeers.h"
#include "support/FakeRoutingHost.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {
namespace {

using std::chrono::seconds;

// Longer than any test may take: one that waits for it has not heard of the end.
constexpr std::chrono::hours kLong{1};

class HeartbeatThreadTest : public testing::Test {
 protected:
  HeartbeatThreadTest() : table(host, (configuration.Folder() / "table_router.txt").string()) {
    table.AddParent("boss");
    table.Parent()->LogonRouter("boss", parent.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                                BrelixMessaging::NotifyConsumer::_nil(), 0, false);
  }
  bool Logged(const std::string& end) const {
    return log.Has(kLogDebug, "HeartbeatThread::Process(): " + end);
  }

  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  TestSupport::FakeRoutingHost host;
  RouterTable table;
  TestSupport::RouterPeer parent;
};

TEST_F(HeartbeatThreadTest, HasNotSucceededBeforeItIsMade) {
  HeartbeatThread heartbeat(table);
  EXPECT_FALSE(heartbeat.Succeeded());
  EXPECT_FALSE(heartbeat.WaitForEnd(seconds(0)));
}

TEST_F(HeartbeatThreadTest, ThatTheParentAnswersSucceeds) {
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  EXPECT_TRUE(heartbeat.Succeeded());
  EXPECT_EQ(parent->heartbeats.count, 1);
  EXPECT_TRUE(Logged("Calling parent with heartbeat..."));
  EXPECT_TRUE(Logged("Heartbeat to parent succeeded."));
}

TEST_F(HeartbeatThreadTest, IsRepeatedOnceAtOnceAfterASystemException) {
  parent->heartbeats.UnreachableFor(1);
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  EXPECT_TRUE(heartbeat.Succeeded());
  EXPECT_EQ(parent->heartbeats.count, 2);
}

TEST_F(HeartbeatThreadTest, ThatFailsTwiceHasFailed) {
  parent->heartbeats.UnreachableFor(2);
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  EXPECT_FALSE(heartbeat.Succeeded());
  EXPECT_EQ(parent->heartbeats.count, 2);
  EXPECT_TRUE(Logged("Heartbeat to parent failed."));
  EXPECT_FALSE(log.Contains("succeeded"));
}

TEST_F(HeartbeatThreadTest, ThatIsMadeAgainBeginsAnew) {
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  ASSERT_TRUE(heartbeat.Succeeded());
  heartbeat.Join();
  std::promise<void> called;
  std::promise<void> answer;
  parent->heartbeats.onCall = [&](int) {
    called.set_value();
    answer.get_future().wait();
  };
  heartbeat.Start();
  called.get_future().wait();
  EXPECT_FALSE(heartbeat.Succeeded());
  EXPECT_FALSE(heartbeat.WaitForEnd(seconds(0)));
  answer.set_value();
  EXPECT_TRUE(heartbeat.WaitForEnd(kLong));
}

TEST_F(HeartbeatThreadTest, ToAParentThatCannotBePushedToFailsWithoutACall) {
  table.Parent()->LogonRouter("boss", BrelixMessaging::RouterConsumer::_nil(),
                              BrelixMessaging::RouterSupplier::_nil(),
                              BrelixMessaging::NotifyConsumer::_nil(), 0, false);
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  EXPECT_FALSE(heartbeat.Succeeded());
  EXPECT_FALSE(log.Contains("HeartbeatThread::Process()"));
}

TEST_F(HeartbeatThreadTest, OfARouterWithoutAParentFails) {
  table.Clear();
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  ASSERT_TRUE(heartbeat.WaitForEnd(kLong));
  EXPECT_FALSE(heartbeat.Succeeded());
}

TEST_F(HeartbeatThreadTest, WhoseEndCameBeforeTheWaitIsSeenAllTheSame) {
  HeartbeatThread heartbeat(table);
  heartbeat.Start();
  heartbeat.Join();
  EXPECT_TRUE(heartbeat.WaitForEnd(seconds(0)));
  EXPECT_TRUE(heartbeat.Succeeded());
}

// A parent that takes the call and keeps it until it is told to answer.
class HangingParentTest : public HeartbeatThreadTest {
 protected:
  HangingParentTest() {
    parent->heartbeats.onCall = [this](int) {
      called.set_value();
      answer.get_future().wait();
    };
    heartbeat.emplace(table);
    heartbeat->Start();
    called.get_future().wait();
  }
  ~HangingParentTest() override { heartbeat.reset(); }

  std::promise<void> called;
  std::promise<void> answer;
  std::optional<HeartbeatThread> heartbeat;
};

TEST_F(HangingParentTest, WaitEndsWithItsTime) {
  EXPECT_FALSE(heartbeat->WaitForEnd(seconds(0)));
  EXPECT_FALSE(heartbeat->Succeeded());
  answer.set_value();
  EXPECT_TRUE(heartbeat->WaitForEnd(kLong));
}

TEST_F(HangingParentTest, WaitGoesOnThroughSignalsThatAreNoAnswer) {
  auto waiter = std::async(std::launch::async, [this] { return heartbeat->WaitForEnd(kLong); });
  heartbeat->Signal();
  heartbeat->RequestStop();
  EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  answer.set_value();
  EXPECT_TRUE(waiter.get());
  EXPECT_TRUE(heartbeat->Succeeded());
}

TEST_F(HangingParentTest, DestructionWaitsForTheCall) {
  auto destroyed = std::async(std::launch::async, [this] { heartbeat.reset(); });
  EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  answer.set_value();
  destroyed.get();
  EXPECT_TRUE(Logged("Heartbeat to parent succeeded."));
}

}  // namespace
}  // namespace MessageRouter
