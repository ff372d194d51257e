#include <cstdio>
#include <cstdlib>

#include "delivery/EndOfVisit.h"
#include "fixture.h"
#include "platform/Process.h"
#include "threads/Mutex.h"

namespace DeliveryTests {
namespace {

using MessageRouter::kLogDebug;
using MessageRouter::kLogError;
using MessageRouter::SendFailureRecord;
using MessageRouter::SetConfigBool;
using MessageRouter::SetConfigInt;
using testing::ElementsAre;

TestSupport::LogCapture* captured = nullptr;

void PrintCaptured() {
  for (const auto& line : captured->Lines()) std::fputs(line.text.c_str(), stderr);
}

// The watch on peers that a send to does not come back from.
class SendMonitorTest : public DeliveryTest {
 protected:
  void Monitor(std::uint32_t limit = 5000) {
    SetConfigBool("MonitorEmSender", true);
    SetConfigInt("MonitorEmSenderMaxFailures", limit);
  }
  RouterTableEntry& AParent() {
    table.AddParent("");
    table.SetParentName("boss");
    RouterTableEntry& parent = *table.Parent();
    parent.MarkRegistered(true);
    return parent;
  }
  // As if another worker sat in a call to it.
  static void MakeBusy(RouterTableEntry& entry) { ASSERT_TRUE(entry.ClaimForSending().acquired); }
};

TEST_F(SendMonitorTest, VisitToABusyManagementClientCounts) {
  Monitor();
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  MakeBusy(entry);
  Visit(entry);
  EXPECT_EQ(Failures(), 1u);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushBusy);
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(SendMonitorTest, VisitToABusyParentCounts) {
  Monitor();
  RouterPeer peer;
  RouterTableEntry& parent = AParent();
  parent.LogonRouter(parent.Name(), peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  MakeBusy(parent);
  Visit(parent);
  EXPECT_EQ(Failures(), 1u);
}

TEST_F(SendMonitorTest, OtherBusyPeersDoNotCount) {
  Monitor();
  ClientPeer client;
  RouterPeer router;
  for (RouterTableEntry* entry :
       {&APushedClient(client, "em"), &APushedClient(client, "EM2"), &APushedRouter(router)}) {
    MakeBusy(*entry);
    Visit(*entry);
  }
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, ParentWithoutRouterConsumerIsNotMonitored) {
  Monitor();
  NotifyPeer peer;
  RouterTableEntry& parent = AParent();
  parent.LogonRouter(parent.Name(), BrelixMessaging::RouterConsumer::_nil(),
                     BrelixMessaging::RouterSupplier::_nil(), peer.Reference(), 0, true);
  Visit(parent);
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, ManagementClientWithANotifyConsumerAloneIsNotMonitored) {
  Monitor();
  NotifyPeer peer;
  Visit(ANotifiedClient(peer, 0, "EM"));
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, WithoutMonitoringTheCounterStaysZero) {
  SetConfigBool("MonitorEmSender", false);
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  MakeBusy(entry);
  Visit(entry);
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, DeliveryToAMonitoredPeerClearsTheCounter) {
  Monitor();
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  MakeBusy(entry);
  Visit(entry);
  entry.SendFinished(entry.Generation());
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, DeliveryToAnotherPeerDoesNotClearTheCounter) {
  Monitor();
  SendFailureRecord::Instance().CountFailure(5000);
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_EQ(Failures(), 1u);
}

TEST_F(SendMonitorTest, FailedSendDoesNotCount) {
  Monitor();
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  Enqueue(entry, Stored(1));
  peer->UnreachableFor(2);
  Visit(entry);
  EXPECT_EQ(Failures(), 0u);
  EXPECT_FALSE(entry.IsLoggedOn());
}

TEST_F(SendMonitorTest, EachThousandIsLogged) {
  for (int i = 0; i < 2000; ++i) SendFailureRecord::Instance().CountFailure(5000);
  EXPECT_TRUE(log.Has(kLogDebug,
                      "Failed to send a message to EM or parent 1000 consecutive times. The router "
                      "will restart if this problem does not resolve itself."));
  EXPECT_EQ(log.Count("consecutive times"), 2u);
}

TEST_F(SendMonitorTest, LimitOfZeroIsNotMet) {
  for (int i = 0; i < 1001; ++i) EXPECT_TRUE(SendFailureRecord::Instance().CountFailure(0));
  EXPECT_EQ(Failures(), 1001u);
}

TEST_F(SendMonitorTest, LimitEndsTheProcessWithStatusZeroAndAnErrorLine) {
  Monitor(2);
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  MakeBusy(entry);
  EXPECT_EXIT(
      {
        captured = &log;
        Platform::SetLastWords(&PrintCaptured);
        Visit(entry);
        Visit(entry);
        std::exit(9);
      },
      testing::ExitedWithCode(0),
      "Failed to send a message to EM or parent 2 consecutive times. The router will now restart.");
}

TEST_F(SendMonitorTest, SettingsAreLoggedOnceInTheProcess) {
  EXPECT_EXIT(
      {
        Monitor(77);
        Visit(AClient("first"));
        Visit(AClient("second"));
        const std::string line =
            "Router will restart when it detects an EM or parent sender thread has failed to send "
            "77 messages.";
        std::exit(log.Has(kLogDebug, line) && log.Count("Router will ") == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(SendMonitorTest, SettingsAreLoggedWithNotWithoutMonitoring) {
  EXPECT_EXIT(
      {
        Visit(AClient());
        const std::string line =
            "Router will not restart when it detects an EM or parent sender thread has failed to "
            "send 5000 messages.";
        std::exit(log.Has(kLogDebug, line) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(SendMonitorTest, LockThatFailsAfterADeliveryStopsTheLoopAndKeepsTheFile) {
  Monitor();
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, "EM");
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  peer->onCall = [](int) { ThreadHelper::FailNextLocks(1); };
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u));
  EXPECT_TRUE(OnDisk(1));
  EXPECT_FALSE(log.Contains("Sent message"));
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_THAT(Waiting(entry), ElementsAre(2u));
}

TEST_F(SendMonitorTest, LockThatFailsCountsNothing) {
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(SendFailureRecord::Instance().CountFailure(1));
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(SendFailureRecord::Instance().Clear());
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SendMonitorTest, LogoffThatRaisesIsLoggedAndTheWorkerGoesOn) {
  RouterPeer peer;
  RouterTableEntry& parent = AParent();
  parent.LogonRouter(parent.Name(), peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  Enqueue(parent, Stored(1));
  peer->UnreachableFor(2);
  host.onParentLinkLost = [] { throw BrelixMessaging::NotLoggedOn(); };
  EXPECT_NO_THROW(Visit(parent));
  EXPECT_TRUE(log.Contains("during logoff\n"));
}

TEST_F(SendMonitorTest, GuardLetsNoExceptionOut) {
  MessageRouter::EndVisit("SenderWorker", "SendEntryGuard",
                          [] { throw BrelixMessaging::NotLoggedOn(); });
  EXPECT_TRUE(log.Contains("SenderWorker: Caught CORBA"));
  MessageRouter::EndVisit("SenderWorker", "SendEntryGuard",
                          [] { throw std::runtime_error("no way"); });
  EXPECT_TRUE(log.Has(kLogError, "SenderWorker: Caught no way during logoff\n"));
  MessageRouter::EndVisit("SenderWorker", "SendEntryGuard", [] { throw 1; });
  EXPECT_TRUE(log.Has(kLogError, "SendEntryGuard destructor caught unknown exception\n"));
  EXPECT_EQ(log.Count("during logoff\n"), 2u);
}

}  // namespace
}  // namespace DeliveryTests
