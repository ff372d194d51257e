#include <new>
#include <optional>

#include "fixture.h"
#include "support/AllocationFailure.h"
#include "support/EmptyPull.h"

namespace DeliveryTests {
namespace {

using MessageRouter::kLogDebug;

// Peers that fetch for themselves.
using SenderNotifyTest = DeliveryTest;

TEST_F(SenderNotifyTest, WaitingEnvelopeIsNotified) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_EQ(peer->count, 1);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
  EXPECT_TRUE(log.Has(kLogDebug, "Notifying agent\n"));
  EXPECT_TRUE(log.Has(kLogDebug, "Successfully notified agent\n"));
  EXPECT_TRUE(entry.HasEnvelopes());
}

TEST_F(SenderNotifyTest, EnvelopeBelowTheThresholdIsNotNotified) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer, 5);
  Enqueue(entry, Stored(1).WithPriority(4));
  Visit(entry);
  EXPECT_EQ(peer->count, 0);
}

TEST_F(SenderNotifyTest, NotifySystemExceptionAndThenSuccessIsASuccess) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  peer->UnreachableFor(1);
  Visit(entry);
  EXPECT_EQ(peer->count, 2);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(SenderNotifyTest, FailedNotificationDelaysWithoutLoggingOff) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  peer->UnreachableFor(2);
  Visit(entry);
  EXPECT_TRUE(log.Has(kLogDebug, "Failed to notify agent\n"));
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(SenderNotifyTest, NotificationAfterWhichThereIsNoMemoryIsASuccess) {
  NotifyPeer peer;
  RouterTableEntry& entry =
      ANotifiedClient(peer, 0, "a name that takes memory wherever it is copied");
  Enqueue(entry, Stored(1));
  {
    std::optional<TestSupport::AllocationFailure> failure;
    peer->onCall = [&](int) { failure.emplace(); };
    Visit(entry);
    EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
  }
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
  EXPECT_TRUE(entry.NotificationWanted(entry.Generation()).acquired);
}

// Whichever allocation of the visit it is.
TEST_F(SenderNotifyTest, OneAllocationThatFailsLeavesTheWayToThePeerFree) {
  NotifyPeer peer;
  RouterTableEntry& entry = AClient("a name that takes memory wherever it is copied");
  Enqueue(entry, Stored(1));
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    entry.LogonClient(entry.Name(), BrelixMessaging::EnvelopeConsumer::_nil(), peer.Reference(), 0,
                      true);
    {
      const TestSupport::AllocationFailure failure(successes, 1);
      try {
        Visit(entry);
      } catch (const std::bad_alloc&) {
      }
      complete = !TestSupport::AllocationFailure::Happened();
    }
    entry.LogonClient(entry.Name(), BrelixMessaging::EnvelopeConsumer::_nil(), peer.Reference(), 0,
                      true);
    const RouterTableEntry::Claim claim = entry.NotificationWanted(entry.Generation());
    EXPECT_TRUE(claim.acquired) << successes;
    entry.NotificationFinished(claim.generation);
  }
}

TEST_F(SenderNotifyTest, EnvelopeThatArrivesAfterAnEmptyPullIsNotifiedOnceMore) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [&](int call) {
    if (call > 1) return;
    PullWithNothingThere(entry);
    EXPECT_FALSE(entry.NotificationWanted(entry.Generation()).acquired);
  };
  Visit(entry);
  EXPECT_EQ(peer->count, 2);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(SenderNotifyTest, FailureOfTheSecondNotificationIsRecorded) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [&](int call) {
    if (call > 1) {
      EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotifying);
      throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    }
    PullWithNothingThere(entry);
    EXPECT_FALSE(entry.NotificationWanted(entry.Generation()).acquired);
  };
  Visit(entry);
  EXPECT_EQ(peer->count, 3);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  EXPECT_EQ(log.Count("Notifying agent"), 2u);
  EXPECT_TRUE(log.Has(kLogDebug, "Failed to notify agent\n"));
}

TEST_F(SenderNotifyTest, EnvelopeThatIsFetchedBeforeTheSecondNotificationNeedsNone) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [&](int) {
    PullWithNothingThere(entry);
    EXPECT_FALSE(entry.NotificationWanted(entry.Generation()).acquired);
    entry.TakeAll();
  };
  Visit(entry);
  EXPECT_EQ(peer->count, 1);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(SenderNotifyTest, BusyRouterIsNotNotifiedInstead) {
  RouterPeer consumer;
  NotifyPeer notify;
  RouterTableEntry& entry = ARouter();
  entry.LogonRouter(entry.Name(), consumer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                    notify.Reference(), 0, true);
  Enqueue(entry, Stored(1));
  ASSERT_TRUE(entry.ClaimForSending().acquired);
  Visit(entry);
  EXPECT_EQ(consumer->count, 0);
  EXPECT_EQ(notify->count, 0);
}

}  // namespace
}  // namespace DeliveryTests
