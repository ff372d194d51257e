#include "routing/SupplierSide.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <set>
#include <string>

namespace MessageRouter {
namespace {

using Side = SupplierSide;
using std::chrono::seconds;

constexpr std::uint32_t kSeed = 4711;
constexpr Side::States kAll[] = {Side::kNoSupplier,   Side::kActiveSupplier, Side::kPollWaiting,
                                 Side::kPollNotified, Side::kPollDue,        Side::kPollRunning,
                                 Side::kPollFailed};

const Side::Time kNow{seconds(1000000)};

Thresholds Steady() {
  Thresholds thresholds;
  thresholds.getterShortInterval = 100;
  thresholds.getterInterval = 900;
  thresholds.randomizeGetterInterval = false;
  return thresholds;
}

void BringTo(Side& side, Side::States state) {
  bool notified = false;
  switch (state) {
    case Side::kNoSupplier:
      return;
    case Side::kActiveSupplier:
      return side.BeginPushing();
    case Side::kPollWaiting:
      side.BeginPolling(Steady(), kNow);
      return;
    case Side::kPollNotified:
      BringTo(side, Side::kPollWaiting);
      side.Notify();
      return;
    case Side::kPollDue:
      BringTo(side, Side::kPollWaiting);
      side.CheckTime(Steady(), kNow);
      return;
    case Side::kPollRunning:
      BringTo(side, Side::kPollDue);
      side.Claim(notified);
      side.Leave();
      return;
    case Side::kPollFailed:
      BringTo(side, Side::kPollRunning);
      return side.PollFailed();
  }
}

// The state that an operation leaves, for each state that it finds, in their order.
struct Row {
  const char* name;
  std::function<bool(Side&)> operation;
  int after[7];
  std::set<int> succeedsIn;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class SupplierStates : public testing::TestWithParam<Row> {};

TEST_P(SupplierStates, ChangeAsTheTableSays) {
  for (const Side::States before : kAll) {
    Side side(kSeed);
    BringTo(side, before);
    ASSERT_EQ(side.State(), before);
    EXPECT_EQ(GetParam().operation(side), GetParam().succeedsIn.count(before) == 1) << before;
    EXPECT_EQ(side.State(), static_cast<std::uint32_t>(GetParam().after[before])) << before;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, SupplierStates,
    testing::Values(
        Row{"CheckTime",
            [](Side& side) { return side.CheckTime(Steady(), kNow).due; },
            {0, 1, 4, 3, 4, 5, 6},
            {2}},
        Row{"Notify", [](Side& side) { return side.Notify(); }, {0, 1, 3, 3, 4, 5, 6}, {2}},
        Row{"Claim",
            [](Side& side) {
              bool notified = false;
              return side.Claim(notified);
            },
            {0, 1, 2, 5, 5, 5, 6},
            {3, 4}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SupplierSide, TellsAClaimWhetherThePeerAskedForThePoll) {
  for (const Side::States state : {Side::kPollNotified, Side::kPollDue}) {
    Side side(kSeed);
    BringTo(side, state);
    bool notified = false;
    ASSERT_TRUE(side.Claim(notified));
    EXPECT_EQ(notified, state == Side::kPollNotified);
  }
}

TEST(SupplierSide, TakesOneGetterAtATime) {
  Side side(kSeed);
  bool notified = false;
  BringTo(side, Side::kPollDue);
  ASSERT_TRUE(side.Claim(notified));
  side.Reset();
  BringTo(side, Side::kPollNotified);  // a new session, while the call of the old one runs
  EXPECT_FALSE(side.Claim(notified));
  EXPECT_TRUE(side.Leave().worker);
  EXPECT_TRUE(side.Claim(notified));
}

TEST(SupplierSide, IsDueAtOnceAndThenAfterEachInterval) {
  Side side(kSeed);
  bool notified = false;
  EXPECT_EQ(side.BeginPolling(Steady(), kNow), 900u);
  Side::TimedPoll poll = side.CheckTime(Steady(), kNow);
  EXPECT_TRUE(poll.due);
  EXPECT_EQ(poll.waited, 900u);
  EXPECT_EQ(poll.next, 900u);
  ASSERT_TRUE(side.Claim(notified));
  side.Leave();
  EXPECT_FALSE(side.PollSucceeded(kNow));
  EXPECT_FALSE(side.CheckTime(Steady(), kNow + seconds(899)).due);
  EXPECT_TRUE(side.CheckTime(Steady(), kNow + seconds(900)).due);
}

TEST(SupplierSide, TellsWhereThePeerAskedDuringThePoll) {
  Side side(kSeed);
  bool notified = false;
  BringTo(side, Side::kPollDue);
  ASSERT_TRUE(side.Claim(notified));
  EXPECT_FALSE(side.Notify());
  EXPECT_TRUE(side.PollSucceeded(kNow));
  EXPECT_FALSE(side.PollSucceeded(kNow)) << "once";
}

TEST(SupplierSide, ForgetsWithItsSessionThatThePeerAsked) {
  Side side(kSeed);
  BringTo(side, Side::kPollRunning);
  side.Notify();
  side.Reset();
  BringTo(side, Side::kPollRunning);
  EXPECT_FALSE(side.PollSucceeded(kNow));
}

TEST(SupplierSide, IsPolledAtTheShortIntervalWhileAnswersAreExpected) {
  Side side(kSeed);
  side.BeginPolling(Steady(), kNow);
  EXPECT_EQ(side.ExpectResponse(true, Steady(), kNow), 100u);
  EXPECT_EQ(side.ExpectResponse(true, Steady(), kNow), std::nullopt) << "it is short already";
  EXPECT_EQ(side.EndResponse(true, Steady()), std::nullopt) << "one more is expected";
  EXPECT_EQ(side.EndResponse(true, Steady()), 900u);
  EXPECT_EQ(side.EndResponse(true, Steady()), std::nullopt) << "none was expected";
  EXPECT_EQ(side.ExpectResponse(true, Steady(), kNow), 100u);
}

TEST(SupplierSide, BeginsWithTheShortIntervalWhereAnswersAreExpectedAlready) {
  Side side(kSeed);
  EXPECT_EQ(side.ExpectResponse(false, Steady(), kNow), std::nullopt);
  EXPECT_EQ(side.BeginPolling(Steady(), kNow), 100u);
}

TEST(SupplierSide, ExpectsNoAnswerAfterOneLongInterval) {
  Side side(kSeed);
  side.BeginPolling(Steady(), kNow);
  side.PollSucceeded(kNow + seconds(850));
  side.ExpectResponse(true, Steady(), kNow);
  EXPECT_EQ(side.CheckTime(Steady(), kNow + seconds(899)).reset, std::nullopt);
  const Side::TimedPoll poll = side.CheckTime(Steady(), kNow + seconds(900));
  EXPECT_EQ(poll.reset, 900u);
  EXPECT_FALSE(poll.due);
}

TEST(SupplierSide, SpreadsIntervalsFromHalfToOneAndAHalf) {
  Thresholds thresholds;
  thresholds.getterInterval = 900;
  Side side(kSeed);
  std::uint32_t least = ~0u;
  std::uint32_t most = 0;
  for (int i = 0; i < 10000; ++i) {
    const std::uint32_t interval = side.BeginPolling(thresholds, kNow);
    least = std::min(least, interval);
    most = std::max(most, interval);
  }
  // 32767 / (32767 / 900) is 910.
  EXPECT_EQ(least, 450u);
  EXPECT_EQ(most, 450u + 910u);
}

TEST(SupplierSide, KeepsNothingOfAPeerThatIsGone) {
  Side side(kSeed);
  side.BeginPolling(Steady(), kNow);
  side.PollSucceeded(kNow);
  side.ExpectResponse(true, Steady(), kNow);
  side.Clear();
  EXPECT_EQ(side.State(), Side::kNoSupplier);
  EXPECT_EQ(side.BeginPolling(Steady(), kNow), 900u) << "no answer is expected";
  EXPECT_TRUE(side.CheckTime(Steady(), kNow).due) << "it was never polled";
}

}  // namespace
}  // namespace MessageRouter
