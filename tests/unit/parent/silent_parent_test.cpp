// A parent that is there and does not answer, as a frozen process does.
#include "parent_logon_fixture.h"
#include "support/RemoteDoor.h"

namespace MessageRouter {
namespace {

using TestSupport::RemoteDoor;

class SilentParentTest : public ParentLogonTest {
 protected:
  SilentParentTest() {
    parent_.ShowDoor(RemoteDoorReference());
    SetConfigInt("HeartbeatTimeout", 300);
  }
  BrelixMessaging::Router_var RemoteDoorReference() const {
    return door_.Reference<BrelixMessaging::Router>();
  }

  RemoteDoor door_;
};

TEST_F(SilentParentTest, AtItsRootIsAFailedAttempt) {
  door_.FallSilentAt("_is_a");
  SetConfigInt("HeartbeatTimeout", 50);
  host_.root = door_.Reference<CORBA::Object>();
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(log_.Count("ParentLogon::RegisterParent: Caught CORBA TIMEOUT"), 11u);
}

TEST_F(SilentParentTest, ToTheRegistrationIsAFailedAttempt) {
  door_.FallSilentAt("Register");
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] {
    return log_.Count("ParentLogon::RegisterParent: Caught CORBA TIMEOUT") >= 2 &&
           door_.Calls("Register") >= 2;
  }));
  door_.Answer();
  EXPECT_TRUE(LogsOn());
  logon.StopLogon(false);
}

TEST_F(SilentParentTest, ToTheLogonIsAFailedAttempt) {
  door_.FallSilentAt("Logon");
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] {
    return log_.Count("RouterTableEntry: Caught CORBA TIMEOUT") >= 2 && door_.Calls("Logon") >= 2;
  }));
  door_.Answer();
  EXPECT_TRUE(LogsOn());
  logon.StopLogon(false);
}

TEST_F(SilentParentTest, ToTheQuestionForItsConnectionIsRegisteredWithAnew) {
  ParentLogon logon(routing_, router_, kShortSecond);
  BeginAndSettle(logon);
  door_.FallSilentAt(RemoteDoor::kPlace);
  table_.Parent()->Logoff();
  EXPECT_TRUE(Eventually([&] {
    return log_.Has(kLogDebug, "Failed to validate connection to parent router\n") &&
           parent_.Calls("GetRouter") >= 2;
  }));
  door_.Answer();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
}

TEST_F(SilentParentTest, ALinkLostDuringThatQuestionIsFollowedByAPause) {
  SetConfigInt("HeartbeatTimeout", 20000);
  SetConfigInt("LogonRetryInterval", 100);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  door_.FallSilentAt(RemoteDoor::kPlace);
  const std::size_t before = door_.Calls(RemoteDoor::kPlace);
  ASSERT_TRUE(Eventually([&] {
    logon.Enable();
    return door_.Calls(RemoteDoor::kPlace) > before;
  }));
  table_.Parent()->Logoff();
  const auto begin = Clock::now();
  door_.Answer();
  EXPECT_TRUE(LogsOn(2));
  EXPECT_GE(Clock::now() - begin, 100ms);
  EXPECT_EQ(door_.Calls("Register"), 1u);
  logon.StopLogon(false);
}

TEST_F(SilentParentTest, IsWaitedForHalfAnHourUnlessSetOtherwise) {
  ConfigureNothing();
  door_.FallSilentAt("Register");
  const auto begin = Clock::now();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("Caught CORBA TIMEOUT"); }));
  const auto passed = Clock::now() - begin;
  logon.StopLogon(false);
  EXPECT_GE(passed, 1800ms);
  EXPECT_LT(passed, 3500ms);
}

// It may be calling back meanwhile.
TEST_F(SilentParentTest, ToTheLogonIsWaitedForTwoMinutesAndAHalfAtLeast) {
  SetConfigInt("HeartbeatTimeout", 50);
  door_.FallSilentAt("Logon");
  const auto begin = Clock::now();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(
      Eventually([&] { return log_.Count("RouterTableEntry: Caught CORBA TIMEOUT") >= 3; }));
  const auto passed = Clock::now() - begin;
  logon.StopLogon(false);
  EXPECT_GE(passed, 450ms);
}

TEST_F(SilentParentTest, ToTheLogonIsWaitedForAsLongAsAHeartbeatIs) {
  SetConfigInt("HeartbeatTimeout", 400);
  door_.FallSilentAt("Logon");
  const auto begin = Clock::now();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("RouterTableEntry: Caught CORBA TIMEOUT"); }));
  const auto passed = Clock::now() - begin;
  logon.StopLogon(false);
  EXPECT_GE(passed, 400ms);
}

TEST_F(SilentParentTest, ToTheRegistrationHasNoMoreTimeThanAHeartbeat) {
  SetConfigInt("HeartbeatTimeout", 20);
  door_.FallSilentAt("Register");
  const auto begin = Clock::now();
  ParentLogon logon(routing_, router_, 20ms);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("RegisterParent: Caught CORBA TIMEOUT"); }));
  const auto passed = Clock::now() - begin;
  logon.StopLogon(false);
  // A logon would have 150 of these seconds.
  EXPECT_GE(passed, 400ms);
  EXPECT_LT(passed, 3000ms);
}

TEST_F(SilentParentTest, IsAskedNothingByARouterThatStopsAttached) {
  for (const bool logoff : {false, true}) {
    log_.Clear();
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(LogsOn());
    const std::size_t before = door_.Calls(RemoteDoor::kPlace);
    door_.FallSilentAt(RemoteDoor::kPlace);
    logon.StopLogon(logoff);
    EXPECT_EQ(door_.Calls(RemoteDoor::kPlace), before) << logoff;
    EXPECT_FALSE(log_.Contains("Failed to validate connection")) << logoff;
    door_.Answer();
  }
}

TEST_F(SilentParentTest, ThatBreaksTheConnectionOnceIsAskedAgain) {
  SetConfigInt("HeartbeatTimeout", 20000);
  ParentLogon logon(routing_, router_, kShortSecond);
  BeginAndSettle(logon);
  door_.BreakAt(RemoteDoor::kPlace, 1);
  table_.Parent()->Logoff();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_FALSE(door_.Breaks());
  EXPECT_FALSE(log_.Contains("Failed to validate connection to parent router"));
  EXPECT_EQ(door_.Calls("Register"), 1u);
}

TEST_F(SilentParentTest, ThatBreaksTheConnectionTwiceIsRegisteredWithAnew) {
  SetConfigInt("HeartbeatTimeout", 20000);
  ParentLogon logon(routing_, router_, kShortSecond);
  BeginAndSettle(logon);
  door_.BreakAt(RemoteDoor::kPlace, 2);
  table_.Parent()->Logoff();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_FALSE(door_.Breaks());
  EXPECT_EQ(log_.Count("Failed to validate connection to parent router"), 1u);
  EXPECT_EQ(door_.Calls("Register"), 2u);
}

TEST_F(SilentParentTest, ToItsLeaveLetsAStopThrough) {
  SetConfigInt("HeartbeatTimeout", 20000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  SetConfigInt("HeartbeatTimeout", 300);
  door_.FallSilentAt("Logoff");
  logon.StopLogon(true);
  EXPECT_EQ(log_.Count("ParentLogon::Process: Caught CORBA TIMEOUT"), 1u);
}

// A stop has ten seconds for everything.
TEST_F(SilentParentTest, ToItsLeaveHoldsAStopUpForSecondsAtMostWhateverALimitOfHeartbeats) {
  for (const std::uint32_t timeout : {0u, 3600u * 1000u}) {
    SetConfigInt("HeartbeatTimeout", timeout);
    log_.Clear();
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(LogsOn()) << timeout;
    door_.FallSilentAt("Logoff");
    const auto begin = Clock::now();
    logon.StopLogon(true);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8)) << timeout;
    EXPECT_EQ(log_.Count("ParentLogon::Process: Caught CORBA TIMEOUT"), 1u) << timeout;
    door_.Answer();
  }
}

TEST_F(SilentParentTest, IsWaitedForWithoutLimitWhereHeartbeatsAre) {
  for (const int timeout : {0, -5}) {
    SetConfigInt("HeartbeatTimeout", static_cast<std::uint32_t>(timeout));
    const std::size_t before = door_.Calls("Logon");
    log_.Clear();
    door_.FallSilentAt("Logon");
    ParentLogon logon(routing_, router_, std::chrono::microseconds(100));
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return door_.Calls("Logon") > before; })) << timeout;
    // The limit where none is set takes 180 ms.
    const auto begin = Clock::now();
    ASSERT_TRUE(Eventually([&] { return Clock::now() - begin >= 250ms; }));
    door_.Answer();
    EXPECT_TRUE(LogsOn()) << timeout;
    logon.StopLogon(false);
    EXPECT_EQ(door_.Calls("Logon"), before + 1) << timeout;
    EXPECT_FALSE(log_.Contains("TIMEOUT")) << timeout;
  }
}

}  // namespace
}  // namespace MessageRouter
