// The pauses between attempts, and between a session and the next.
#include <algorithm>

#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

class ShortestRetryInterval : public ParentLogonTest, public testing::WithParamInterface<int> {};

TEST_P(ShortestRetryInterval, IsOneSecond) {
  SetConfigInt("LogonRetryInterval", static_cast<std::uint32_t>(GetParam()));
  RefuseRegistration();
  ParentLogon logon(routing_, router_, 50ms);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(false);
  ASSERT_EQ(moments_.Count(), 11u);
  // A busy machine makes some of them longer.
  Clock::duration shortest = moments_.Between(0, 1);
  for (std::size_t i = 1; i < 10; ++i) shortest = std::min(shortest, moments_.Between(i, i + 1));
  EXPECT_GE(shortest, 50ms);
  EXPECT_LT(shortest, 100ms);
}

INSTANTIATE_TEST_SUITE_P(Below, ShortestRetryInterval, testing::Values(0, -5));

TEST_F(ParentLogonTest, ThePauseIsOfThirtySecondsUnlessSetOtherwise) {
  ConfigureNothing();
  std::atomic<Clock::rep> times[2] = {0, 0};
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation != "Register") return;
    const std::size_t call = parent_.Calls(operation);
    if (call <= 2) times[call - 1] = Clock::now().time_since_epoch().count();
    throw BrelixMessaging::Rejected();
  });
  ParentLogon logon(routing_, router_, 20ms);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return times[1] != 0; }));
  logon.StopLogon(false);
  const Clock::duration passed(times[1] - times[0]);
  EXPECT_GE(passed, 600ms);
  EXPECT_LT(passed, 1200ms);
}

TEST_F(ParentLogonTest, APauseThatIsSetMeanwhileCountsFromTheNextOn) {
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation != "Register") return;
    moments_.Note();
    if (moments_.Count() == 3) SetConfigInt("LogonRetryInterval", 200);
    throw BrelixMessaging::Rejected();
  });
  RunUntil([&] { return moments_.Count() >= 5; });
  EXPECT_GE(moments_.Between(2, 4), 400ms);
}

TEST_F(ParentLogonTest, BetweenAttemptsToRegisterTheIntervalPasses) {
  SetConfigInt("LogonRetryInterval", 20);
  RefuseRegistration();
  RunUntil([&] { return moments_.Count() >= 6; });
  EXPECT_GE(moments_.Between(0, 5), 100ms);
}

TEST_F(ParentLogonTest, BetweenAttemptsToLogOnTheIntervalPasses) {
  SetConfigInt("LogonRetryInterval", 20);
  RefuseLogon();
  RunUntil([&] { return moments_.Count() >= 6; });
  EXPECT_GE(moments_.Between(0, 5), 100ms);
}

TEST_F(ParentLogonTest, NoNewsCutsAPauseShort) {
  SetConfigInt("LogonRetryInterval", 100);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] {
    logon.LinkLost();
    logon.Enable();
    return moments_.Count() >= 4;
  }));
  logon.StopLogon(false);
  EXPECT_GE(moments_.Between(0, 3), 300ms);
}

TEST_F(ParentLogonTest, ASessionThatEndsAtOnceIsNotBegunAnewAtOnce) {
  SetConfigInt("LogonRetryInterval", 20);
  router_.status.onReport = [this] {
    moments_.Note();
    table_.Parent()->Logoff();
  };
  RunUntil([&] { return moments_.Count() >= 6; });
  EXPECT_GE(moments_.Between(0, 5), 100ms);
  EXPECT_EQ(router_.reinitialised, 0);
}

TEST_F(ParentLogonTest, AfterALostLinkTheIntervalPasses) {
  SetConfigInt("LogonRetryInterval", 50);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  const auto begin = Clock::now();
  table_.Parent()->Logoff();
  ASSERT_TRUE(LogsOn(2));
  EXPECT_GE(Clock::now() - begin, 50ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ThePauseOfAnEarlierWakeUpIsNotThatOfALostLink) {
  SetConfigInt("LogonRetryInterval", 100);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.Enable();
  const auto woken = Clock::now();
  ASSERT_TRUE(Eventually([&] { return Clock::now() - woken >= 60ms; }));
  const auto begin = Clock::now();
  table_.Parent()->Logoff();
  ASSERT_TRUE(LogsOn(2));
  EXPECT_GE(Clock::now() - begin, 100ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AFailureThatEndsTheSessionIsFollowedByOnePause) {
  SetConfigInt("LogonRetryInterval", 1000);
  std::atomic<bool> failed{false};
  router_.status.onReport = [&] {
    moments_.Note();
    if (failed.exchange(true)) return;
    table_.Parent()->Logoff();
    throw std::runtime_error("no report");
  };
  RunUntil([&] { return moments_.Count() >= 2; });
  const auto passed = moments_.Between(0, 1);
  EXPECT_GE(passed, 1000ms);
  EXPECT_LT(passed, 1900ms);
}

TEST_F(ParentLogonTest, WhatFailsUnexpectedlyIsTriedAgainAfterTheInterval) {
  SetConfigInt("LogonRetryInterval", 20);
  host_.NoObjects();
  host_.onObjects = [this] { moments_.Note(); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  const std::string failure = "ParentLogon::Process: Caught ServantHelper not initialized";
  EXPECT_TRUE(Eventually([&] { return log_.Count(failure) >= 12; }));
  logon.StopLogon(false);
  EXPECT_EQ(moments_.Count(), log_.Count(failure));
  EXPECT_GE(moments_.Between(0, 11), 220ms);
  // They are no attempts.
  EXPECT_EQ(router_.reinitialised, 0);
}

}  // namespace
}  // namespace MessageRouter
