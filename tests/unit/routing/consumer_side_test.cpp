#include "routing/ConsumerSide.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

namespace MessageRouter {
namespace {

using Side = ConsumerSide;
using std::chrono::seconds;

constexpr Side::States kAll[] = {
    Side::kNothingSent, Side::kNoNotification, Side::kNotified,  Side::kPushIdle,
    Side::kPushBusy,    Side::kPushFailed,     Side::kNotifying, Side::kNotifyingPulledEmpty,
    Side::kNotifyAgain};

const Side::Time kNow{seconds(1000000)};

void BringTo(Side& side, Side::States state) {
  switch (state) {
    case Side::kNothingSent:
      return side.BeginNotified(0);
    case Side::kNoNotification:
      return side.BeginSilent();
    case Side::kNotified:
      BringTo(side, Side::kNotifying);
      side.NotificationFinished(kNow);
      side.Leave();
      return;
    case Side::kPushIdle:
      return side.BeginPushed();
    case Side::kPushBusy:
      side.BeginPushed();
      side.ClaimForSending();
      side.Leave();
      return;
    case Side::kPushFailed:
      side.BeginPushed();
      return side.SendFailed();
    case Side::kNotifying:
      side.BeginNotified(0);
      side.ClaimForNotifying(0);
      side.Leave();
      return;
    case Side::kNotifyingPulledEmpty:
      BringTo(side, Side::kNotifying);
      return side.PulledNothing();
    case Side::kNotifyAgain:
      BringTo(side, Side::kNotifyingPulledEmpty);
      side.ClaimForNotifying(0);
      return;
  }
}

// The state that an operation leaves, for each state that it finds, in their order.
struct Row {
  const char* name;
  std::function<void(Side&)> operation;
  int after[9];
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class ConsumerStates : public testing::TestWithParam<Row> {};

TEST_P(ConsumerStates, ChangeAsTheTableSays) {
  for (const Side::States before : kAll) {
    Side side;
    BringTo(side, before);
    ASSERT_EQ(side.State(), before);
    GetParam().operation(side);
    EXPECT_EQ(side.State(), static_cast<std::uint32_t>(GetParam().after[before])) << before;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ConsumerStates,
    testing::Values(
        Row{"ClaimForSending",
            [](Side& side) { side.ClaimForSending(); },
            {0, 1, 2, 4, 4, 5, 6, 7, 8}},
        Row{"SendFinished", [](Side& side) { side.SendFinished(); }, {0, 1, 2, 3, 3, 5, 6, 7, 8}},
        Row{"SendFailed", [](Side& side) { side.SendFailed(); }, {5, 5, 5, 5, 5, 5, 5, 5, 5}},
        Row{"SomethingWaits",
            [](Side& side) { side.ClaimForNotifying(1); },
            {6, 1, 6, 3, 4, 5, 6, 8, 8}},
        Row{"NothingWaits",
            [](Side& side) { side.ClaimForNotifying(std::nullopt); },
            {0, 1, 2, 3, 4, 5, 6, 8, 8}},
        Row{"ClaimForRetry",
            [](Side& side) { side.ClaimForRetry(Thresholds(), kNow); },
            {6, 6, 2, 3, 4, 5, 6, 7, 8}},
        Row{"NotificationAccepted",
            [](Side& side) { side.NotificationAccepted(5, kNow); },
            {0, 1, 2, 3, 4, 5, 2, 2, 2}},
        Row{"NotificationFailed",
            [](Side& side) { side.NotificationFailed(Thresholds(), kNow); },
            {0, 1, 2, 3, 4, 5, 1, 1, 1}},
        Row{"RetryFailed", [](Side& side) { side.RetryFailed(kNow); }, {0, 1, 2, 3, 4, 5, 1, 1, 1}},
        Row{"NotificationFinished",
            [](Side& side) { side.NotificationFinished(kNow); },
            {0, 1, 2, 3, 4, 5, 2, 2, 2}},
        Row{"PulledNothing", [](Side& side) { side.PulledNothing(); }, {0, 1, 2, 3, 4, 5, 7, 7, 8}},
        Row{"Reset", [](Side& side) { side.Reset(); }, {0, 0, 0, 0, 0, 0, 0, 0, 0}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ConsumerSide, LooksAgainAtOnceWhereAnotherNotificationWasWanted) {
  for (const Side::States before :
       {Side::kNotifying, Side::kNotifyingPulledEmpty, Side::kNotifyAgain}) {
    Side side;
    BringTo(side, before);
    EXPECT_EQ(side.NotificationFinished(kNow), before == Side::kNotifyAgain) << before;
  }
}

TEST(ConsumerSide, TakesOneWorkerAtATime) {
  Side side;
  side.BeginNotified(0);
  ASSERT_TRUE(side.ClaimForNotifying(0));
  side.BeginPushed();  // a new session, while the call of the old one runs
  EXPECT_FALSE(side.ClaimForSending());
  EXPECT_EQ(side.State(), Side::kPushIdle);
  const Visitors turnedAway = side.Leave();
  EXPECT_TRUE(turnedAway.worker);
  EXPECT_FALSE(turnedAway.threshold);
  EXPECT_TRUE(side.ClaimForSending());
}

TEST(ConsumerSide, RemembersAThresholdWorkerThatItTurnedAway) {
  Side side;
  side.BeginPushed();
  ASSERT_TRUE(side.ClaimForSending());
  side.BeginNotified(0);
  EXPECT_FALSE(side.ClaimForRetry(Thresholds(), kNow));
  const Visitors turnedAway = side.Leave();
  EXPECT_FALSE(turnedAway.worker);
  EXPECT_TRUE(turnedAway.threshold);
  EXPECT_TRUE(side.ClaimForRetry(Thresholds(), kNow)) << "who was turned away loses no time";
}

struct Worth {
  std::int32_t threshold;
  std::int32_t priority;
  bool told;
};

class NotificationThreshold : public testing::TestWithParam<Worth> {};

TEST_P(NotificationThreshold, DecidesWhatIsTold) {
  Side side;
  side.BeginNotified(GetParam().threshold);
  EXPECT_EQ(side.ClaimForNotifying(GetParam().priority), GetParam().told);
}

INSTANTIATE_TEST_SUITE_P(Priorities, NotificationThreshold,
                         testing::Values(Worth{0, -1, true}, Worth{0, 0, true}, Worth{1, 0, false},
                                         Worth{1, 1, true}, Worth{1, -1, false},
                                         Worth{-1, -2, false}, Worth{-1, -1, true}));

TEST(ConsumerSide, TakesTheThresholdThatThePeerAnswered) {
  Side side;
  side.BeginNotified(0);
  ASSERT_TRUE(side.ClaimForNotifying(3));
  side.NotificationAccepted(4, kNow);
  side.Leave();
  EXPECT_FALSE(side.ClaimForNotifying(3));
  EXPECT_TRUE(side.ClaimForNotifying(4));
}

TEST(ConsumerSide, DoublesThePauseOfRetriesUpToTheMaximum) {
  Thresholds thresholds;
  thresholds.notificationThresholdInitialRetrySecs = 100;
  thresholds.notificationThresholdMaxRetrySecs = 350;
  Side side;
  side.BeginNotified(0);
  Side::Time now = kNow;
  for (const int pause : {100, 200, 350, 350}) {
    ASSERT_TRUE(side.ClaimForRetry(thresholds, now)) << pause;
    side.RetryFailed(now);
    side.Leave();
    EXPECT_FALSE(side.ClaimForRetry(thresholds, now + seconds(pause))) << pause;
    now += seconds(pause + 1);
  }
}

TEST(ConsumerSide, BeginsThePausesAnewAfterAFailedNotification) {
  Thresholds thresholds;
  thresholds.notificationThresholdInitialRetrySecs = 100;
  Side side;
  side.BeginNotified(0);
  ASSERT_TRUE(side.ClaimForRetry(thresholds, kNow));
  side.NotificationFailed(thresholds, kNow + seconds(500));
  side.Leave();
  EXPECT_FALSE(side.ClaimForRetry(thresholds, kNow + seconds(600)));
  EXPECT_TRUE(side.ClaimForRetry(thresholds, kNow + seconds(601)));
}

TEST(ConsumerSide, TimesOutAfterTheLimitSinceTheLastPullAndNotAtIt) {
  Side side;
  side.BeginSilent();
  EXPECT_FALSE(side.PullTimedOut(60, kNow)) << "nothing has been touched yet";
  side.TouchLastPull(kNow);
  EXPECT_FALSE(side.PullTimedOut(60, kNow + seconds(60)));
  EXPECT_TRUE(side.PullTimedOut(60, kNow + seconds(61)));
  side.ForgetLastPull();
  EXPECT_FALSE(side.PullTimedOut(60, kNow + seconds(61)));
}

TEST(ConsumerSide, CountsPullsInFourStates) {
  for (const Side::States state : kAll) {
    const bool counts = state == Side::kNothingSent || state == Side::kNoNotification ||
                        state == Side::kNotified || state == Side::kNotifying;
    Side side;
    BringTo(side, state);
    side.TouchLastPull(kNow);
    EXPECT_EQ(side.PullTimedOut(60, kNow + seconds(61)), counts) << state;
  }
}

TEST(ConsumerSide, KeepsNothingOfAPeerThatIsGone) {
  Side side;
  side.BeginNotified(7);
  ASSERT_TRUE(side.ClaimForRetry(Thresholds(), kNow));
  side.RetryFailed(kNow);
  side.Leave();
  side.TouchLastPull(kNow);
  side.Clear();
  EXPECT_FALSE(side.PullTimedOut(1, kNow + seconds(100)));
  EXPECT_TRUE(side.ClaimForRetry(Thresholds(), kNow)) << "no pause";
  side.RetryFailed(kNow);
  side.Leave();
  side.Reset();
  EXPECT_TRUE(side.ClaimForNotifying(0)) << "no threshold";
}

}  // namespace
}  // namespace MessageRouter
