#include <set>

#include "fixture.h"
#include "support/AllocationFailure.h"

namespace TestSupport {
namespace {

using std::chrono::seconds;

constexpr char kPrefix[] = "RouterTableEntry::";

class EntryPollingTest : public RoutingTest {
 protected:
  EntryPollingTest() : peer_(ARouter("child")) {
    thresholds_.randomizeGetterInterval = false;
    host_.SetThresholds(thresholds_);
  }

  bool Logged(const std::string& text) const {
    return log_.Has(MessageRouter::kLogDebug, kPrefix + text + "\n");
  }
  // A whole poll, so that the interval starts anew.
  void Poll() {
    ASSERT_TRUE(peer_.readyForTimedPoll());
    const Entry::Claim claim = peer_.ClaimForPolling();
    ASSERT_TRUE(claim.acquired);
    peer_.successfulGet(claim.generation);
  }

  Entry& peer_;
  MessageRouter::Thresholds thresholds_;
};

TEST_F(EntryPollingTest, ANewlyEnabledPeerIsDueAtTheFirstCheck) {
  LogonPolled(peer_);
  EXPECT_TRUE(Logged("unsafe_enablePolling(): set polling interval to 900 seconds for child"));
  EXPECT_TRUE(peer_.readyForTimedPoll());
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollDue);
  EXPECT_TRUE(Logged("readyForTimedPoll(): waited 900 seconds for poll of child"));
  EXPECT_TRUE(Logged("readyForTimedPoll(): set next polling interval to 900 seconds for child"));
}

TEST_F(EntryPollingTest, AfterAPollTheIntervalMustPass) {
  LogonPolled(peer_);
  Poll();
  EXPECT_TRUE(Logged("successfulGet(): re-started polling interval for child"));
  clock_.Advance(seconds(899));
  EXPECT_FALSE(peer_.readyForTimedPoll());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, AWallClockSetBackDelaysNoPoll) {
  LogonPolled(peer_);
  Poll();
  clock_.AdvanceWall(-100000);
  clock_.Advance(seconds(900));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, WhatPushesItselfIsNeverPolled) {
  peer_.LogonRouter(peer_.Name(), BrelixMessaging::RouterConsumer::_nil(),
                    BrelixMessaging::RouterSupplier::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  EXPECT_FALSE(peer_.readyForTimedPoll());
  EXPECT_FALSE(peer_.readyForNotifiedPoll());
  EXPECT_FALSE(peer_.ClaimForPolling().acquired);
}

TEST_F(EntryPollingTest, ANotifiedPollComesAtOnceAndOnlyWhileThePeerWaits) {
  LogonPolled(peer_);
  Poll();
  EXPECT_TRUE(peer_.readyForNotifiedPoll());
  EXPECT_TRUE(Logged("readyForNotifiedPoll(): await poll of child"));
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollNotified);
  EXPECT_FALSE(peer_.readyForNotifiedPoll());
  EXPECT_FALSE(peer_.readyForTimedPoll());
}

// What the callers of these do next must happen, with a line in the log or without.
TEST_F(EntryPollingTest, NoStepOfAPollFailsForWantOfMemory) {
  Entry& peer = ARouter("a name that takes memory wherever it is copied");
  LogonPolled(peer);
  const AllocationFailure failure;
  ASSERT_TRUE(peer.readyForTimedPoll());
  peer.successfulGet(peer.ClaimForPolling().generation);
  peer.responseExpected();
  peer.responseNotRequired();
  ASSERT_TRUE(peer.readyForNotifiedPoll());
  EXPECT_TRUE(peer.ClaimForPolling().notified);
  EXPECT_TRUE(AllocationFailure::Happened());
}

TEST_F(EntryPollingTest, APollThatEndsWithoutMemoryIsFollowedByTheOneThatWasAskedFor) {
  Entry& peer = ARouter("a name that takes memory wherever it is copied");
  LogonPolled(peer);
  ASSERT_TRUE(peer.readyForNotifiedPoll());
  const Entry::Claim claim = peer.ClaimForPolling();
  ASSERT_FALSE(peer.readyForNotifiedPoll());
  {
    const AllocationFailure failure;
    EXPECT_NO_THROW(peer.successfulGet(claim.generation));
    EXPECT_TRUE(AllocationFailure::Happened());
  }
  EXPECT_THAT(host_.Pollers(), testing::ElementsAre(&peer));
}

TEST_F(EntryPollingTest, NotificationsDuringAPollAreOneMorePollAfterIt) {
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForTimedPoll());
  const Entry::Claim claim = peer_.ClaimForPolling();
  EXPECT_FALSE(peer_.readyForNotifiedPoll());
  EXPECT_FALSE(peer_.readyForNotifiedPoll());
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollRunning);
  peer_.successfulGet(claim.generation);
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollNotified);
  EXPECT_THAT(host_.Pollers(), testing::ElementsAre(&peer_));
  peer_.successfulGet(peer_.ClaimForPolling().generation);
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollWaiting);
  EXPECT_THAT(host_.Pollers(), testing::SizeIs(1));
}

TEST_F(EntryPollingTest, ANotificationOfAnEndedSessionIsForgotten) {
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForTimedPoll());
  ASSERT_TRUE(peer_.ClaimForPolling().acquired);
  EXPECT_FALSE(peer_.readyForNotifiedPoll());
  LogonPolled(peer_);
  peer_.successfulGet(peer_.Generation());
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollWaiting);
  EXPECT_THAT(host_.Pollers(), testing::IsEmpty());
}

TEST_F(EntryPollingTest, OnlyOneWorkerCanClaimAPoll) {
  LogonPolled(peer_);
  EXPECT_FALSE(peer_.ClaimForPolling().acquired);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  const Entry::Claim claim = peer_.ClaimForPolling();
  EXPECT_TRUE(claim.acquired);
  EXPECT_EQ(claim.generation, peer_.Generation());
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollRunning);
  EXPECT_FALSE(peer_.ClaimForPolling().acquired);
  EXPECT_TRUE(peer_.failedGet(claim.generation));
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollFailed);
}

TEST_F(EntryPollingTest, TheEndOfAStalePollChangesNothing) {
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  const Entry::Claim stale = peer_.ClaimForPolling();
  LogonPolled(peer_);
  EXPECT_FALSE(peer_.failedGet(stale.generation));
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollWaiting);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  peer_.successfulGet(stale.generation);
  EXPECT_EQ(peer_.GetSupplierState(), Entry::kPollNotified);
}

// A peer that hangs and logs on again must not take one getter after the other.
TEST_F(EntryPollingTest, AGetterThatHangsInAnOldSessionKeepsOthersOutAndItsEndOffersTheEntryAgain) {
  for (const bool failed : {false, true}) {
    for (const bool notified : {false, true}) {
      clock_.Advance(seconds(900));
      LogonPolled(peer_);
      ASSERT_TRUE(peer_.readyForNotifiedPoll());
      const Entry::Claim stale = peer_.ClaimForPolling();
      for (int logon = 0; logon < 2; ++logon) {
        LogonPolled(peer_);
        ASSERT_TRUE(notified ? peer_.readyForNotifiedPoll() : peer_.readyForTimedPoll());
        EXPECT_FALSE(peer_.ClaimForPolling().acquired);
        EXPECT_EQ(peer_.GetSupplierState(), notified ? Entry::kPollNotified : Entry::kPollDue);
      }
      EXPECT_THAT(host_.Getters(), testing::IsEmpty());
      if (failed) {
        EXPECT_FALSE(peer_.failedGet(stale.generation));
      } else {
        peer_.successfulGet(stale.generation);
      }
      EXPECT_THAT(host_.Getters(), testing::ElementsAre(&peer_));
      const Entry::Claim next = peer_.ClaimForPolling();
      EXPECT_TRUE(next.acquired);
      EXPECT_EQ(next.notified, notified);
      peer_.successfulGet(next.generation);
      host_.ForgetOffers();
    }
  }
}

TEST_F(EntryPollingTest, AFailedPollLetsTheFirstOfTheNextSessionIn) {
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  ASSERT_TRUE(peer_.failedGet(peer_.ClaimForPolling().generation));
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  EXPECT_TRUE(peer_.ClaimForPolling().acquired);
  EXPECT_THAT(host_.Getters(), testing::IsEmpty());
}

TEST_F(EntryPollingTest, AClaimTellsWhetherThePeerAskedForThePoll) {
  LogonPolled(peer_);
  ASSERT_TRUE(peer_.readyForTimedPoll());
  const Entry::Claim timed = peer_.ClaimForPolling();
  EXPECT_FALSE(timed.notified);
  peer_.successfulGet(timed.generation);
  ASSERT_TRUE(peer_.readyForNotifiedPoll());
  EXPECT_TRUE(peer_.ClaimForPolling().notified);
  EXPECT_FALSE(peer_.ClaimForPolling().notified);
}

TEST_F(EntryPollingTest, AnAwaitedAnswerShortensTheInterval) {
  LogonPolled(peer_);
  Poll();
  peer_.responseExpected();
  EXPECT_TRUE(Logged("responseExpected(): set polling interval to 120 seconds for child"));
  clock_.Advance(seconds(119));
  EXPECT_FALSE(peer_.readyForTimedPoll());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(peer_.readyForTimedPoll());
  EXPECT_TRUE(Logged("readyForTimedPoll(): set next polling interval to 120 seconds for child"));
}

TEST_F(EntryPollingTest, EachExpectedResponseMovesTheDeadlineOfTheShortInterval) {
  thresholds_.getterInterval = 300;
  host_.SetThresholds(thresholds_);
  LogonPolled(peer_);
  peer_.responseExpected();
  clock_.Advance(seconds(200));
  peer_.responseExpected();
  const auto reset = "readyForTimedPoll(): reset current polling interval to 300 seconds for child";
  clock_.Advance(seconds(299));
  ASSERT_TRUE(peer_.readyForTimedPoll());
  EXPECT_FALSE(Logged(reset));
  peer_.successfulGet(peer_.ClaimForPolling().generation);
  clock_.Advance(seconds(1));
  EXPECT_FALSE(peer_.readyForTimedPoll());
  EXPECT_TRUE(Logged(reset));
}

TEST_F(EntryPollingTest, WithTwoExpectedResponsesOneKeepsTheShortIntervalAndTheNextEndsIt) {
  LogonPolled(peer_);
  Poll();
  peer_.responseExpected();
  peer_.responseExpected();
  EXPECT_EQ(log_.Count("responseExpected(): set polling interval"), 1u);
  peer_.responseNotRequired();
  EXPECT_EQ(log_.Count("responseNotRequired(): set polling interval"), 0u);
  clock_.Advance(seconds(120));
  EXPECT_TRUE(peer_.readyForTimedPoll());
  peer_.successfulGet(peer_.Generation());
  peer_.responseNotRequired();
  EXPECT_TRUE(Logged("responseNotRequired(): set polling interval to 900 seconds for child"));
  clock_.Advance(seconds(899));
  EXPECT_FALSE(peer_.readyForTimedPoll());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, AnAnswerThatNobodyAwaitedChangesNothing) {
  LogonPolled(peer_);
  peer_.responseNotRequired();
  peer_.responseExpected();
  peer_.responseNotRequired();
  EXPECT_EQ(log_.Count("responseExpected(): set polling interval"), 1u);
  EXPECT_EQ(log_.Count("responseNotRequired(): set polling interval"), 1u);
}

TEST_F(EntryPollingTest, APassedShortPollDeadlineResetsToTheLongIntervalEvenIfNoPollIsDue) {
  thresholds_.getterInterval = 300;
  host_.SetThresholds(thresholds_);
  LogonPolled(peer_);
  Poll();
  peer_.responseExpected();
  clock_.Advance(seconds(200));
  ASSERT_TRUE(peer_.readyForTimedPoll());
  peer_.successfulGet(peer_.Generation());
  clock_.Advance(seconds(100));
  EXPECT_FALSE(peer_.readyForTimedPoll());
  EXPECT_TRUE(
      Logged("readyForTimedPoll(): reset current polling interval to 300 seconds for child"));
  clock_.Advance(seconds(200));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, AnExpectedResponseOutlivesALogon) {
  peer_.responseExpected();
  LogonPolled(peer_);
  EXPECT_TRUE(Logged("unsafe_enablePolling(): set polling interval to 120 seconds for child"));
}

TEST_F(EntryPollingTest, RandomIntervalsSpreadFromHalfToOneAndAHalf) {
  thresholds_.randomizeGetterInterval = true;
  thresholds_.getterInterval = 1000;
  host_.SetThresholds(thresholds_);
  std::set<unsigned> intervals;
  for (int i = 0; i < 500; ++i) {
    log_.Clear();
    LogonPolled(peer_);
    unsigned interval = 0;
    for (const auto& line : log_.Lines()) {
      std::sscanf(line.text.c_str(),
                  "RouterTableEntry::unsafe_enablePolling(): set polling interval to %u",
                  &interval);
    }
    intervals.insert(interval);
  }
  // 32767 / (32767 / 1000) is 1023 at most.
  EXPECT_GE(*intervals.begin(), 500u);
  EXPECT_LE(*intervals.rbegin(), 1523u);
  EXPECT_LT(*intervals.begin(), 600u);
  EXPECT_GT(*intervals.rbegin(), 1400u);
  EXPECT_GT(intervals.size(), 200u);
}

TEST_F(EntryPollingTest, ARandomIntervalAbove32767IsClamped) {
  thresholds_.randomizeGetterInterval = true;
  thresholds_.getterInterval = 4000000000u;
  host_.SetThresholds(thresholds_);
  LogonPolled(peer_);
  Poll();
  clock_.Advance(seconds(32767 + 32767 / 2));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, AZeroIntervalStaysZero) {
  thresholds_.randomizeGetterInterval = true;
  thresholds_.getterInterval = 0;
  host_.SetThresholds(thresholds_);
  LogonPolled(peer_);
  Poll();
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

TEST_F(EntryPollingTest, NothingOfTheFormerPeersPollingIsLeftToWhoeverTakesItsEntryOver) {
  LogonPolled(peer_);
  Poll();
  peer_.responseExpected();
  table_.Unregister("child");
  table_.AddCertificationEntry("new");
  ASSERT_EQ(table_.Find("new"), &peer_);
  table_.Register("new", true);
  LogonPolled(peer_);
  EXPECT_TRUE(Logged("unsafe_enablePolling(): set polling interval to 900 seconds for new"));
  EXPECT_TRUE(peer_.readyForTimedPoll());
}

}  // namespace
}  // namespace TestSupport
