#include <functional>

#include "fixture.h"
#include "support/EmptyPull.h"
#include "support/FakeParent.h"

namespace TestSupport {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class EntryPushTest : public RoutingTest {
 protected:
  EntryPushTest() : client_(AClient("agent")) {}
  Entry& client_;
};

TEST_F(EntryPushTest, OnePeerHasOneSenderAtATime) {
  EXPECT_FALSE(client_.ClaimForSending().acquired);
  LogonPushed(client_);
  const Entry::Claim claim = client_.ClaimForSending();
  EXPECT_TRUE(claim.acquired);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kPushBusy);
  EXPECT_TRUE(client_.IsPassiveConsumer());
  const Entry::Claim second = client_.ClaimForSending();
  EXPECT_FALSE(second.acquired);
  EXPECT_EQ(second.generation, claim.generation);
}

TEST_F(EntryPushTest, TheEndOfASendWakesTheSendersIfMoreWaits) {
  LogonPushed(client_);
  client_.SendFinished(client_.ClaimForSending().generation);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kPushIdle);
  EXPECT_THAT(host_.Senders(), IsEmpty());
  Enqueue(client_, AnEnvelope());
  client_.SendFinished(client_.ClaimForSending().generation);
  EXPECT_THAT(host_.Senders(), ElementsAre(&client_));
}

TEST_F(EntryPushTest, AFailedSendIsRemembered) {
  LogonPushed(client_);
  EXPECT_TRUE(client_.SendFailed(client_.ClaimForSending()));
  EXPECT_EQ(client_.GetConsumerState(), Entry::kPushFailed);
  EXPECT_FALSE(client_.IsPassiveConsumer());
  EXPECT_FALSE(client_.ClaimForSending().acquired);
}

TEST_F(EntryPushTest, TheEndOfAStaleSendChangesNothingOfTheNewSession) {
  for (const bool failed : {false, true}) {
    LogonPushed(client_);
    const Entry::Claim stale = client_.ClaimForSending();
    LogonPushed(client_);
    if (failed) {
      EXPECT_FALSE(client_.SendFailed(stale));
    } else {
      client_.SendFinished(stale.generation);
    }
    EXPECT_EQ(client_.GetConsumerState(), Entry::kPushIdle);
    EXPECT_THAT(host_.Senders(), IsEmpty());
  }
}

// A peer that hangs and logs on again must not take one sender after the other.
TEST_F(EntryPushTest, ASenderThatHangsInAnOldSessionKeepsOthersOutAndItsEndOffersTheEntryAgain) {
  for (const bool failed : {false, true}) {
    LogonPushed(client_);
    const Entry::Claim stale = client_.ClaimForSending();
    LogonPushed(client_);
    EXPECT_FALSE(client_.ClaimForSending().acquired);
    LogonPushed(client_);
    EXPECT_FALSE(client_.ClaimForSending().acquired);
    EXPECT_EQ(client_.GetConsumerState(), Entry::kPushIdle);
    if (failed) {
      client_.SendFailed(stale);
    } else {
      client_.SendFinished(stale.generation);
    }
    EXPECT_THAT(host_.Senders(), ElementsAre(&client_));
    const Entry::Claim next = client_.ClaimForSending();
    EXPECT_TRUE(next.acquired);
    client_.SendFinished(next.generation);
    host_.ForgetOffers();
  }
}

TEST_F(EntryPushTest, TheFailureOfAVisitWithoutAClaimLetsNobodyIn) {
  LogonPushed(client_);
  ASSERT_TRUE(client_.ClaimForSending().acquired);
  client_.SendFailed(client_.ClaimForSending());
  LogonPushed(client_);
  EXPECT_FALSE(client_.ClaimForSending().acquired);
}

TEST_F(EntryPushTest, ASenderThatHangsKeepsTheNotificationsOfANewSessionOutToo) {
  LogonPushed(client_);
  const Entry::Claim stale = client_.ClaimForSending();
  LogonNotified(client_);
  Enqueue(client_, AnEnvelope());
  EXPECT_FALSE(client_.NotificationWanted(client_.Generation()).acquired);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kNothingSent);
  client_.SendFinished(stale.generation);
  EXPECT_THAT(host_.Senders(), ElementsAre(&client_));
  EXPECT_TRUE(client_.NotificationWanted(client_.Generation()).acquired);
}

TEST_F(EntryPushTest, AnEntryInWhichASenderHangsIsTakenOverByNobody) {
  LogonPushed(client_);
  const Entry::Claim claim = client_.ClaimForSending();
  table_.Unregister("agent");
  std::vector<Envelope> leftovers;
  EXPECT_FALSE(client_.TakeOver("newcomer", leftovers));
  client_.SendFinished(claim.generation);
  EXPECT_TRUE(client_.TakeOver("newcomer", leftovers));
}

class EntryNotificationTest : public RoutingTest {
 protected:
  EntryNotificationTest() : peer_(ARouter("child")) {
    thresholds_.notificationThresholdInitialRetrySecs = 100;
    thresholds_.notificationThresholdMaxRetrySecs = 350;
    thresholds_.activeConsumerConnectionTimeout = 1800;
    host_.SetThresholds(thresholds_);
    Logon(0);
  }
  void Logon(std::int32_t threshold) {
    const BrelixMessaging::NotifyConsumer_var notify =
        AReferenceTo<BrelixMessaging::NotifyConsumer>("notified");
    peer_.LogonRouter(peer_.Name(), BrelixMessaging::RouterConsumer::_nil(),
                      BrelixMessaging::RouterSupplier::_nil(), notify, threshold, true);
  }
  // The generation of a notification under way.
  MessageRouter::LogonGeneration Begin() {
    if (!peer_.HasEnvelopes()) Enqueue(peer_, AnEnvelope());
    const Entry::Claim claim = peer_.NotificationWanted(peer_.Generation());
    EXPECT_TRUE(claim.acquired);
    return claim.generation;
  }

  Entry& peer_;
  MessageRouter::Thresholds thresholds_;
};

TEST_F(EntryNotificationTest, IsWantedOnceSomethingWaits) {
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
  Enqueue(peer_, AnEnvelope());
  EXPECT_TRUE(peer_.NotificationWanted(peer_.Generation()).acquired);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifying);
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
}

TEST_F(EntryNotificationTest, ThePriorityComparesSignedWithTheThreshold) {
  Enqueue(peer_, AnEnvelope().WithPriority(0xFFFFFFFF));  // -1
  Logon(1);
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
  Logon(-1);
  EXPECT_TRUE(peer_.NotificationWanted(peer_.Generation()).acquired);
}

TEST_F(EntryNotificationTest, APullThatFoundNothingMeanwhileAsksForOneMoreNotification) {
  const auto generation = Begin();
  PullWithNothingThere(peer_);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifyingPulledEmpty);
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifyAgain);
  EXPECT_TRUE(peer_.NotificationFinished(generation));
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
  EXPECT_FALSE(peer_.NotificationFinished(generation));
}

TEST_F(EntryNotificationTest, AFinishedOneLeavesThePeerNotifiedAndItCanBeNotifiedAgain) {
  EXPECT_FALSE(peer_.NotificationFinished(Begin()));
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
  EXPECT_TRUE(peer_.NotificationWanted(peer_.Generation()).acquired);
  PullWithNothingThere(peer_);
  EXPECT_FALSE(peer_.NotificationFinished(peer_.Generation()));
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
}

TEST_F(EntryNotificationTest, APullOutsideOfANotificationChangesNoState) {
  const auto expectToStay = [this](MessageRouter::ConsumerSide::States state) {
    ASSERT_EQ(peer_.GetConsumerState(), state);
    PullWithNothingThere(peer_);
    EXPECT_EQ(peer_.GetConsumerState(), state);
  };
  expectToStay(Entry::kNothingSent);
  const auto generation = Begin();
  PullWithNothingThere(peer_);
  expectToStay(Entry::kNotifyingPulledEmpty);
  peer_.NotificationWanted(peer_.Generation());
  expectToStay(Entry::kNotifyAgain);
  peer_.NotificationFinished(generation);
  expectToStay(Entry::kNotified);
  peer_.NotificationFailed(Begin());
  expectToStay(Entry::kNoNotification);
}

TEST_F(EntryNotificationTest, WithAThresholdOf0EveryEnvelopeIsWorthANotification) {
  for (const std::uint32_t priority : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    Logon(0);
    Enqueue(peer_, AnEnvelope().WithPriority(priority));
    const Entry::Claim claim = peer_.NotificationWanted(peer_.Generation());
    EXPECT_TRUE(claim.acquired) << priority;
    peer_.NotificationFinished(claim.generation);
    peer_.TakeAll();
  }
}

TEST_F(EntryNotificationTest, OneOfNegativePriorityDoesNotKeepThePeerFromHearingOfTheOthers) {
  Enqueue(peer_, AnEnvelope().WithPriority(0xFFFFFFFF));
  Enqueue(peer_, AnEnvelope().WithPriority(5));
  EXPECT_TRUE(peer_.NotificationWanted(peer_.Generation()).acquired);
}

TEST_F(EntryNotificationTest, AFailedOneWaitsTheInitialTime) {
  peer_.NotificationFailed(Begin());
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNoNotification);
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
  clock_.Advance(seconds(100));
  EXPECT_FALSE(peer_.NotificationRetryDue().acquired);
  clock_.Advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(peer_.NotificationRetryDue().acquired);
}

TEST_F(EntryNotificationTest, TheThresholdCallIsDueAtOnceAndThenBacksOffByDoublingUpToTheMaximum) {
  for (const unsigned wait : {100, 200, 350, 350}) {
    const Entry::Claim claim = peer_.NotificationRetryDue();
    ASSERT_TRUE(claim.acquired) << wait;
    peer_.ThresholdCallFailed(claim.generation);
    EXPECT_EQ(peer_.GetConsumerState(), Entry::kNoNotification);
    clock_.Advance(seconds(wait));
    EXPECT_FALSE(peer_.NotificationRetryDue().acquired) << wait;
    clock_.Advance(std::chrono::milliseconds(1));
  }
}

TEST_F(EntryNotificationTest, WithAnInitialValueAboveTheMaximumTheFirstRetryIntervalIsTheMaximum) {
  thresholds_.notificationThresholdInitialRetrySecs = 1000;
  host_.SetThresholds(thresholds_);
  peer_.ThresholdCallFailed(peer_.NotificationRetryDue().generation);
  clock_.Advance(seconds(351));
  EXPECT_TRUE(peer_.NotificationRetryDue().acquired);
}

TEST_F(EntryNotificationTest, AnAcceptedThresholdCounts) {
  const Entry::Claim claim = peer_.NotificationRetryDue();
  peer_.NotificationAccepted(claim.generation, 5);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
  Enqueue(peer_, AnEnvelope().WithPriority(4));
  EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
  Enqueue(peer_, AnEnvelope().WithPriority(5));
  EXPECT_TRUE(peer_.NotificationWanted(peer_.Generation()).acquired);
}

TEST_F(EntryNotificationTest, TheEndOfAStaleOneChangesNothing) {
  const auto stale = Begin();
  Logon(0);
  peer_.NotificationFailed(stale);
  peer_.ThresholdCallFailed(stale);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNothingSent);
  Begin();
  EXPECT_FALSE(peer_.NotificationFinished(stale));
  peer_.NotificationAccepted(stale, 9);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifying);
}

TEST_F(EntryNotificationTest, ACallOfAnOldSessionKeepsOthersOutAndEveryOutcomeOffersTheEntryAgain) {
  using Outcome = std::function<void(MessageRouter::LogonGeneration)>;
  for (const Outcome& end :
       {Outcome([this](auto stale) { peer_.NotificationFinished(stale); }),
        Outcome([this](auto stale) { peer_.NotificationFailed(stale); }),
        Outcome([this](auto stale) { peer_.ThresholdCallFailed(stale); }),
        Outcome([this](auto stale) { peer_.NotificationAccepted(stale, 9); })}) {
    Logon(0);
    const auto stale = Begin();
    Logon(0);
    EXPECT_FALSE(peer_.NotificationWanted(peer_.Generation()).acquired);
    EXPECT_FALSE(peer_.NotificationRetryDue().acquired);
    EXPECT_EQ(peer_.GetConsumerState(), Entry::kNothingSent);
    EXPECT_THAT(host_.Senders(), IsEmpty());
    end(stale);
    EXPECT_EQ(peer_.GetConsumerState(), Entry::kNothingSent);
    EXPECT_THAT(host_.Senders(), ElementsAre(&peer_));
    EXPECT_THAT(host_.ThresholdCalls(), ElementsAre(&peer_));
    host_.ForgetOffers();
    peer_.NotificationFinished(Begin());
    EXPECT_THAT(host_.Senders(), IsEmpty());
  }
}

TEST_F(EntryNotificationTest, AThresholdCallThatWasTurnedAwayIsStillDueAtOnce) {
  const auto stale = Begin();
  Logon(0);
  EXPECT_FALSE(peer_.NotificationRetryDue().acquired);
  peer_.NotificationFinished(stale);
  EXPECT_TRUE(peer_.NotificationRetryDue().acquired);
}

TEST_F(EntryNotificationTest, ASilentActiveConsumerTimesOutAfterTheTimeAndNotAtIt) {
  clock_.Advance(seconds(1800));
  EXPECT_FALSE(peer_.PullTimedOut());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(peer_.PullTimedOut());
  clock_.AdvanceWall(-100000);
  EXPECT_TRUE(peer_.PullTimedOut());
  peer_.TouchLastPull(peer_.Name());
  EXPECT_FALSE(peer_.PullTimedOut());
}

TEST_F(EntryNotificationTest,
       AFinishedNotificationCountsAsASignOfLifeWhateverThePeerPulledMeanwhile) {
  for (const bool pulledEmpty : {false, true}) {
    const auto generation = Begin();
    if (pulledEmpty) {
      PullWithNothingThere(peer_);
      peer_.TouchLastPull(peer_.Name());
    }
    clock_.Advance(seconds(1801));
    peer_.NotificationFinished(generation);
    EXPECT_FALSE(peer_.PullTimedOut());
    clock_.Advance(seconds(1801));
    EXPECT_TRUE(peer_.PullTimedOut()) << pulledEmpty;
  }
}

TEST_F(EntryNotificationTest,
       AnAnsweredThresholdCallCountsAsASignOfLifeWhateverThePeerPulledMeanwhile) {
  for (const bool pulledEmpty : {false, true}) {
    Logon(0);
    const Entry::Claim claim = peer_.NotificationRetryDue();
    ASSERT_TRUE(claim.acquired);
    if (pulledEmpty) {
      PullWithNothingThere(peer_);
      peer_.TouchLastPull(peer_.Name());
    }
    clock_.Advance(seconds(1801));
    peer_.NotificationAccepted(claim.generation, 0);
    EXPECT_FALSE(peer_.PullTimedOut()) << pulledEmpty;
    clock_.Advance(seconds(1801));
    EXPECT_TRUE(peer_.PullTimedOut()) << pulledEmpty;
  }
}

TEST_F(EntryNotificationTest, ASilentRouterTimesOutWhileItIsBeingNotified) {
  Begin();
  clock_.Advance(seconds(1800));
  EXPECT_FALSE(peer_.PullTimedOut());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(peer_.PullTimedOut());
}

TEST_F(EntryNotificationTest, OneThatPulledDuringTheCallDoesNotTimeOutBeforeItsEnd) {
  Begin();
  for (const bool again : {false, true}) {
    PullWithNothingThere(peer_);
    if (again) peer_.NotificationWanted(peer_.Generation());
    peer_.TouchLastPull(peer_.Name());
    clock_.Advance(seconds(1801));
    EXPECT_FALSE(peer_.PullTimedOut()) << again;
  }
}

// A pull in these states counts for nothing.
TEST_F(EntryNotificationTest, AfterAFailedCallTheTimeRunsFromThereIfThePeerPulledMeanwhile) {
  for (const bool again : {false, true}) {
    for (const auto fail : {&Entry::NotificationFailed, &Entry::ThresholdCallFailed}) {
      Logon(0);
      const auto generation = Begin();
      PullWithNothingThere(peer_);
      if (again) peer_.NotificationWanted(peer_.Generation());
      peer_.TouchLastPull(peer_.Name());
      clock_.Advance(seconds(1801));
      std::invoke(fail, peer_, generation);
      EXPECT_EQ(peer_.GetConsumerState(), Entry::kNoNotification);
      EXPECT_FALSE(peer_.PullTimedOut()) << again;
      clock_.Advance(seconds(1801));
      EXPECT_TRUE(peer_.PullTimedOut()) << again;
    }
  }
}

// The parent, which has not pulled yet, is such a peer.
TEST_F(EntryNotificationTest, AFailedCallMakesNobodyTimeOutWhoCouldNotBefore) {
  FakeParent parent;
  parent.notify = AReferenceTo<BrelixMessaging::NotifyConsumer>("parent-notify");
  table_.AddParent("");
  Entry& entry = *table_.Parent();
  for (const auto fail : {&Entry::NotificationFailed, &Entry::ThresholdCallFailed}) {
    ASSERT_TRUE(entry.LogonToParentRouter(parent.Door()));
    std::invoke(fail, entry, entry.NotificationRetryDue().generation);
    ASSERT_EQ(entry.GetConsumerState(), Entry::kNoNotification);
    clock_.Advance(seconds(1801));
    EXPECT_FALSE(entry.PullTimedOut());
  }
}

TEST_F(EntryNotificationTest, APullOfAnotherPeerIsNoneOfThisOnes) {
  Begin();
  peer_.TakeAll();
  Envelope none;
  EXPECT_THROW(peer_.PeekNext(none, "stranger"), BrelixMessaging::Rejected);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifying);
}

TEST_F(EntryNotificationTest, AFailedCallIsNoSignOfLife) {
  for (const auto fail : {&Entry::NotificationFailed, &Entry::ThresholdCallFailed}) {
    Logon(0);
    const auto generation = Begin();
    clock_.Advance(seconds(1801));
    std::invoke(fail, peer_, generation);
    EXPECT_TRUE(peer_.PullTimedOut());
  }
}

TEST_F(EntryNotificationTest, ATimeOutIsThatOfOneSession) {
  const auto old = peer_.Generation();
  Logon(0);
  clock_.Advance(seconds(1801));
  EXPECT_FALSE(peer_.PullTimedOut(old));
  EXPECT_TRUE(peer_.PullTimedOut(peer_.Generation()));
}

TEST_F(EntryNotificationTest, AnOutcomeWithoutACallUnderWayChangesNothing) {
  const auto expectToStay = [this](MessageRouter::ConsumerSide::States state) {
    const auto generation = peer_.Generation();
    ASSERT_EQ(peer_.GetConsumerState(), state);
    peer_.NotificationFailed(generation);
    EXPECT_EQ(peer_.GetConsumerState(), state);
    peer_.ThresholdCallFailed(generation);
    EXPECT_EQ(peer_.GetConsumerState(), state);
    peer_.NotificationAccepted(generation, 9);
    EXPECT_EQ(peer_.GetConsumerState(), state);
  };
  expectToStay(Entry::kNothingSent);
  peer_.NotificationFinished(Begin());  // the threshold is still 0, or nothing would be wanted
  expectToStay(Entry::kNotified);
  peer_.ThresholdCallFailed(Begin());
  expectToStay(Entry::kNoNotification);
  EXPECT_TRUE(peer_.NotificationRetryDue().acquired);  // no failure has put it off
}

TEST_F(EntryNotificationTest, EveryOutcomeEndsACallDuringWhichAnotherWasWanted) {
  const auto begin = [this] {
    Logon(0);
    const auto generation = Begin();
    PullWithNothingThere(peer_);
    peer_.NotificationWanted(peer_.Generation());
    EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotifyAgain);
    return generation;
  };
  peer_.NotificationFailed(begin());
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNoNotification);
  peer_.ThresholdCallFailed(begin());
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNoNotification);
  peer_.NotificationAccepted(begin(), 0);
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
  EXPECT_TRUE(peer_.NotificationFinished(begin()));
  EXPECT_EQ(peer_.GetConsumerState(), Entry::kNotified);
}

TEST_F(EntryNotificationTest, AClientNeverTimesOut) {
  Entry& client = AClient("agent");
  LogonPulling(client);
  client.TouchLastPull(client.Name());
  clock_.Advance(seconds(100000));
  EXPECT_FALSE(client.PullTimedOut());
}

TEST_F(EntryNotificationTest, APassiveConsumerNeverTimesOut) {
  const BrelixMessaging::RouterConsumer_var consumer =
      AReferenceTo<BrelixMessaging::RouterConsumer>("pushed");
  peer_.LogonRouter(peer_.Name(), consumer, BrelixMessaging::RouterSupplier::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  peer_.TouchLastPull(peer_.Name());
  clock_.Advance(seconds(100000));
  EXPECT_FALSE(peer_.PullTimedOut());
}

TEST_F(EntryNotificationTest, APeerThatLoggedOffDoesNotTimeOut) {
  peer_.Logoff();
  clock_.Advance(seconds(100000));
  EXPECT_FALSE(peer_.PullTimedOut());
}

TEST_F(EntryPushTest, ASenderOfAnEndedSessionTakesNothing) {
  Entry& client = AClient("other");
  LogonPushed(client);
  const Entry::Claim claim = client.ClaimForSending();
  ASSERT_TRUE(claim.acquired);
  LogonPushed(client);
  Enqueue(client, AnEnvelope().WithId(1).Build());
  MessageRouter::EnvelopeQueue::Taken out;
  EXPECT_FALSE(client.PopNext(out, claim.generation));
  EXPECT_TRUE(client.PopNext(out, client.Generation()));
}

TEST_F(EntryPushTest, AnEndedSessionClaimsNoNotification) {
  Entry& client = AClient("other");
  LogonNotified(client);
  const MessageRouter::LogonGeneration old = client.Generation();
  LogonNotified(client);
  Enqueue(client, AnEnvelope().WithId(1).Build());
  EXPECT_FALSE(client.NotificationWanted(old).acquired);
  EXPECT_EQ(client.GetConsumerState(), Entry::kNothingSent);
  EXPECT_TRUE(client.NotificationWanted(client.Generation()).acquired);
}

TEST_F(EntryPushTest, TheParentTakesBackWhatWasSentUnderItsFormerName) {
  table_.AddParent("");
  Entry& parent = *table_.Parent();
  table_.SetParentName("boss");
  MessageRouter::EnvelopeQueue::Taken sent(AnEnvelope().WithId(1).Build());
  EXPECT_TRUE(parent.Requeue(sent, ""));
  EXPECT_THAT(Drain(parent), testing::ElementsAre(1u));
}

}  // namespace
}  // namespace TestSupport
