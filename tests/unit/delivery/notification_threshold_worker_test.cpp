#include "delivery/NotificationThresholdWorker.h"

#include <optional>

#include "fixture.h"
#include "support/AllocationFailure.h"
#include "support/EmptyPull.h"

namespace DeliveryTests {
namespace {

using MessageRouter::kLogDebug;
using MessageRouter::NotificationThresholdWorker;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

// A child router that fetches for itself and can be notified. The back-off is the default: an hour
// at first, two days at most.
class ThresholdTest : public DeliveryTest {
 protected:
  ThresholdTest() : entry(ARouter()) { Logon(peer); }
  void Logon(NotifyPeer& notify) {
    entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(),
                      BrelixMessaging::RouterSupplier::_nil(), notify.Reference(), 0, true);
  }
  void VisitForThreshold() {
    NotificationThresholdWorker worker(pool);
    worker.ProcessEntry(entry);
  }
  int ThresholdCalls() { return peer->thresholdCalls.count; }
  // Whether the next call comes after exactly that time.
  void ExpectNextCallAfter(seconds wait) {
    const int before = ThresholdCalls();
    clock.Advance(wait);
    VisitForThreshold();
    EXPECT_EQ(ThresholdCalls(), before) << wait.count();
    clock.Advance(milliseconds(1));
    VisitForThreshold();
    EXPECT_GT(ThresholdCalls(), before) << wait.count();
  }

  // The same, of a peer whose name takes memory, and with none left once the peer has been called.
  RouterTableEntry& VisitThatRunsOutOfMemory() {
    RouterTableEntry& other = ARouter("a name that takes memory wherever it is copied");
    other.LogonRouter(other.Name(), BrelixMessaging::RouterConsumer::_nil(),
                      BrelixMessaging::RouterSupplier::_nil(), peer.Reference(), 0, true);
    NotificationThresholdWorker worker(pool);
    std::optional<TestSupport::AllocationFailure> failure;
    peer->thresholdCalls.onCall = [&failure, then = peer->thresholdCalls.onCall](int call) {
      if (!failure) failure.emplace();
      if (then) then(call);
    };
    worker.ProcessEntry(other);
    EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
    return other;
  }

  NotifyPeer peer;
  RouterTableEntry& entry;
};

TEST_F(ThresholdTest, FirstCallIsMadeAtOnceAndItsAnswerCounts) {
  peer->threshold = 7;
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 1);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
  EXPECT_TRUE(log.Has(kLogDebug, "Successful NotificationThreshold call to child\n"));
  Enqueue(entry, Stored(1).WithPriority(6));
  EXPECT_FALSE(entry.NotificationWanted(entry.Generation()).acquired);
  Enqueue(entry, Stored(2).WithPriority(7));
  EXPECT_TRUE(entry.NotificationWanted(entry.Generation()).acquired);
}

TEST_F(ThresholdTest, AfterTheAnswerTheSendersLookWhetherSomethingIsWorthANotification) {
  Enqueue(entry, Stored(1));
  VisitForThreshold();
  EXPECT_THAT(host.Senders(), ElementsAre(&entry));
  Visit(entry);
  EXPECT_EQ(peer->count, 1);
}

TEST_F(ThresholdTest, ANegativeThresholdIsTakenAsItIs) {
  peer->threshold = -1;
  VisitForThreshold();
  Enqueue(entry, Stored(1).WithPriority(0xFFFFFFFF));
  EXPECT_TRUE(entry.NotificationWanted(entry.Generation()).acquired);
}

TEST_F(ThresholdTest, SystemExceptionAndThenSuccessIsASuccess) {
  peer->thresholdCalls.UnreachableFor(1);
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 2);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(ThresholdTest, FailureLeavesThePeerLoggedOnAndWaiting) {
  peer->thresholdCalls.UnreachableFor(2);
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 2);
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  EXPECT_TRUE(log.Has(kLogDebug, "Failed NotificationThreshold call to child\n"));
  EXPECT_FALSE(log.Contains("Caught"));
  EXPECT_THAT(host.Senders(), IsEmpty());
}

TEST_F(ThresholdTest, RefusalIsAFailureToo) {
  peer->thresholdCalls.onCall = [](int) { throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO); };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(ThresholdTest, FailureWhoseOfferToTheSendersFailsTooCostsNotTheProcess) {
  peer->thresholdCalls.onCall = [this](int) {
    entry.Logoff();
    Logon(peer);
    Enqueue(entry, Stored(1));
    // A sender of the new session is turned away, and to be sent again.
    EXPECT_FALSE(entry.NotificationWanted(entry.Generation()).acquired);
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  };
  host.onOfferToSenders = [] { throw std::bad_alloc(); };
  VisitForThreshold();
  EXPECT_TRUE(log.Contains("NotificationThresholdWorker: Caught"));
  // Nobody is at the peer any more.
  EXPECT_TRUE(entry.NotificationWanted(entry.Generation()).acquired);
}

TEST_F(ThresholdTest, AnswerForWhoseLineThereIsNoMemoryCounts) {
  const RouterTableEntry& other = VisitThatRunsOutOfMemory();
  EXPECT_EQ(other.GetConsumerState(), RouterTableEntry::kNotified);
  EXPECT_THAT(host.Senders(), ElementsAre(&other));
}

TEST_F(ThresholdTest, FailureForWhoseLineThereIsNoMemoryIsNoOtherThanAnyElse) {
  peer->thresholdCalls.onCall = [](int) { throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO); };
  const RouterTableEntry& other = VisitThatRunsOutOfMemory();
  EXPECT_TRUE(other.IsLoggedOn());
  EXPECT_EQ(other.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(ThresholdTest, CallsThatKeepFailingComeAfterOneTwoAndFourHoursUpTo48) {
  peer->thresholdCalls.UnreachableFor(1000);
  VisitForThreshold();
  for (const int hours : {1, 2, 4, 8, 16, 32, 48, 48}) {
    ExpectNextCallAfter(std::chrono::hours(hours));
  }
}

TEST_F(ThresholdTest, WithAnInitialValueAboveTheMaximumTheFirstRetryIntervalIsTheMaximum) {
  MessageRouter::Thresholds thresholds;
  thresholds.notificationThresholdInitialRetrySecs = 1000;
  thresholds.notificationThresholdMaxRetrySecs = 300;
  host.SetThresholds(thresholds);
  peer->thresholdCalls.UnreachableFor(1000);
  VisitForThreshold();
  ExpectNextCallAfter(seconds(300));
}

TEST_F(ThresholdTest, FailureLeavesTheBackOffAsItIsUnlikeAFailedNotification) {
  peer->thresholdCalls.UnreachableFor(1000);
  VisitForThreshold();
  ExpectNextCallAfter(std::chrono::hours(1));  // from here on two hours
  // A notification that fails sets it back to one.
  peer->thresholdCalls.onCall = nullptr;
  ExpectNextCallAfter(std::chrono::hours(2));
  ASSERT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
  Enqueue(entry, Stored(1));
  peer->UnreachableFor(2);
  Visit(entry);
  ASSERT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  const int before = ThresholdCalls();
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), before);
  ExpectNextCallAfter(std::chrono::hours(1));
}

TEST_F(ThresholdTest, BackOffStartsAnewAtTheNextLogon) {
  peer->thresholdCalls.UnreachableFor(1000);
  VisitForThreshold();
  ExpectNextCallAfter(std::chrono::hours(1));
  entry.Logoff();
  Logon(peer);
  const int before = ThresholdCalls();
  VisitForThreshold();
  EXPECT_GT(ThresholdCalls(), before);
  ExpectNextCallAfter(std::chrono::hours(1));
}

TEST_F(ThresholdTest, PeerInTheWaitingStateWhoseTimeHasNotComeIsNotCalled) {
  peer->thresholdCalls.UnreachableFor(1000);
  VisitForThreshold();
  const int before = ThresholdCalls();
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), before);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(ThresholdTest, PeerThatIsNotifiedAlreadyIsNotCalled) {
  VisitForThreshold();
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 1);
}

TEST_F(ThresholdTest, PeerThatLoggedOffIsNotCalled) {
  entry.Logoff();
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 0);
}

TEST_F(ThresholdTest, PeerWithoutANotifierIsNotCalled) {
  entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(),
                    BrelixMessaging::RouterSupplier::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 0);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(ThresholdTest, PeerThatNobodyNotifiedYetComesHereThroughTheOfferAfterItsLogon) {
  ASSERT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  routing.OfferForDelivery(entry);
  ASSERT_THAT(host.ThresholdCalls(), ElementsAre(&entry));
  EXPECT_THAT(host.Senders(), IsEmpty());
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
  routing.OfferForDelivery(entry);
  EXPECT_THAT(host.ThresholdCalls(), ElementsAre(&entry));
  EXPECT_FALSE(host.Senders().empty());
}

TEST_F(ThresholdTest, EmptyPullDuringTheCallEndsAsNotified) {
  peer->thresholdCalls.onCall = [this](int) { PullWithNothingThere(entry); };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(ThresholdTest, FailureAfterAnEmptyPullIsAFailure) {
  peer->thresholdCalls.onCall = [this](int) {
    PullWithNothingThere(entry);
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
}

TEST_F(ThresholdTest, AnswerCountsAsASignOfLife) {
  clock.Advance(seconds(1801));
  ASSERT_TRUE(entry.PullTimedOut());
  VisitForThreshold();
  EXPECT_FALSE(entry.PullTimedOut());
}

TEST_F(ThresholdTest, NoSecondWorkerAsksAPeerThatHangsAndLogsOnAgain) {
  peer->thresholdCalls.onCall = [this](int call) {
    if (call > 1) return;
    Logon(peer);
    VisitForThreshold();
    EXPECT_EQ(ThresholdCalls(), 1);
  };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  EXPECT_THAT(host.ThresholdCalls(), ElementsAre(&entry));
  VisitForThreshold();
  EXPECT_EQ(ThresholdCalls(), 2);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNotified);
}

TEST_F(ThresholdTest, FailureInAnOldSessionOffersTheNewOneAgain) {
  peer->thresholdCalls.onCall = [this](int call) {
    if (call == 1) {
      Logon(peer);
      VisitForThreshold();
    }
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  EXPECT_THAT(host.ThresholdCalls(), ElementsAre(&entry));
}

TEST_F(ThresholdTest, AnswerOfAnOldSessionDoesNotCountForTheNewOne) {
  peer->threshold = 7;
  peer->thresholdCalls.onCall = [this](int) {
    entry.Logoff();
    Logon(peer);
  };
  VisitForThreshold();
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  Enqueue(entry, Stored(1).WithPriority(0));
  EXPECT_TRUE(entry.NotificationWanted(entry.Generation()).acquired);
}

}  // namespace
}  // namespace DeliveryTests
