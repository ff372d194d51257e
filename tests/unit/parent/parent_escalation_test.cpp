// What becomes of steps that keep failing.
#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

constexpr char kForced[] =
    "Registering with parent failed after resetting router. Forcing router shutdown. Router should "
    "restart automatically.";

TEST_F(ParentLogonTest, AnInvalidIorElevenTimesResetsTheRouterAndElevenMoreEndTheProcess) {
  ServeIor("IOR:00");
  RunUntil([&] { return router_.reinitialised == 1; });
  const std::string complaint = "Cannot log on to the parent router, because its IOR is invalid\n";
  EXPECT_EQ(log_.Count(complaint), 11u);
  EXPECT_TRUE(
      log_.Has(kLogWarning, "Register parent retry failed after 10 attempts. Resetting router..."));
  EXPECT_EQ(router_.ended, 0);

  RunUntil([&] { return router_.ended == 1; });
  EXPECT_EQ(log_.Count(complaint), 22u);
  EXPECT_TRUE(log_.Has(kLogWarning, kForced));
  EXPECT_EQ(router_.exitStatus, 0);
  EXPECT_EQ(router_.reinitialised, 1);
}

TEST_F(ParentLogonTest, ASuccessAfterAResetStartsTheLadderAfresh) {
  RefuseRegistration();
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
    EXPECT_TRUE(ParentLogon::TheEscalation().registerResetTried);
    logon.StopLogon(false);
  }
  parent_.SetOnCall(nullptr);
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(LogsOn());
    EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
    logon.StopLogon(true);
  }
  RefuseRegistration();
  RunUntil([&] { return router_.reinitialised == 2; });
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(ParentLogonTest, ElevenFailedLogonsResetTheRouterAndElevenMoreEndTheProcess) {
  RefuseLogon();
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(parent_.Calls("Logon"), 11u);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_TRUE(log_.Has(kLogWarning, "Parent logon failed after 10 attempts. Resetting router..."));
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_EQ(parent_.Calls("Logon"), 22u);
  EXPECT_TRUE(log_.Has(kLogWarning, kForced));
}

TEST_F(ParentLogonTest, AResetThatDoesNotStopItEndsTheProcess) {
  SetConfigInt("ResetTimeout", 3);
  RefuseRegistration();
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "Resetting router failed to terminate parent logon thread after 3 seconds. "
                       "Forcing router shutdown. Router should restart automatically."));
  EXPECT_EQ(router_.exitStatus, 0);
}

TEST_F(ParentLogonTest, AStopBeforeTheRegistrationSetsItsFlag) {
  RefuseRegistration();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return parent_.Calls("Register") == 1; });
  EXPECT_TRUE(ParentLogon::TheEscalation().registerResetTried);
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
  EXPECT_EQ(parent_.Calls("Logon"), 0u);
}

TEST_F(ParentLogonTest, AStopBeforeTheLogonSetsItsFlagAlone) {
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return parent_.Calls("Logon") == 1; });
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
}

TEST_F(ParentLogonTest, AfterAStopBeforeTheLogonTheNextSeriesOfItsFailuresEndsTheProcess) {
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return parent_.Calls("Logon") == 1; });
  SetConfigInt("LogonRetryInterval", 1);
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_EQ(parent_.Calls("Logon"), 12u);
  EXPECT_EQ(router_.reinitialised, 0);
}

TEST_F(ParentLogonTest, AStopWithoutLeaveRightAfterTheLogonSetsItsFlag) {
  ParentLogon logon(routing_, router_, kShortSecond);
  router_.status.onReport = [&] { logon.RequestStopLogon(false); };
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
}

TEST_F(ParentLogonTest, AfterAStopBeforeTheRegistrationTheNextSeriesOfFailuresEndsTheProcess) {
  RefuseRegistration();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return parent_.Calls("Register") == 1; });
  SetConfigInt("LogonRetryInterval", 1);
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_EQ(router_.reinitialised, 0);
}

TEST_F(ParentLogonTest, AResetIsWaitedForTwoMinutesUnlessSetOtherwise) {
  ConfigureNothing();
  SetConfigInt("LogonRetryInterval", 1);
  RefuseRegistration();
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after 120 seconds."));
}

TEST_F(ParentLogonTest, AResetTimeoutThatIsSetMeanwhileCounts) {
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation != "Register") return;
    if (parent_.Calls(operation) == 11) SetConfigInt("ResetTimeout", 3);
    throw BrelixMessaging::Rejected();
  });
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after 3 seconds."));
}

TEST_F(ParentLogonTest, ARegistrationClearsItsMemoryOfTheResetEvenIfTheLogonFails) {
  ParentLogon::TheEscalation().registerResetTried = true;
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") == 1; }));
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ANegativeResetTimeoutIsNoTimeAndIsShownAsItIs) {
  SetConfigInt("ResetTimeout", static_cast<std::uint32_t>(-5));
  RefuseRegistration();
  RunUntil([&] { return router_.ended == 1; });
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after -5 seconds."));
}

TEST_F(ParentLogonTest, ALogonWhoseSessionEndsAtOnceLeavesTheMemoryOfTheReset) {
  ParentLogon::TheEscalation().logonResetTried = true;
  router_.status.onReport = [this] {
    RefuseLogon();
    table_.Parent()->Logoff();
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised + router_.ended != 0; }));
  EXPECT_EQ(router_.ended, 1);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AThreadThatEndsForAResetForgetsItsSession) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  parent_.CloseDoor();
  // Woken without need, it finds that the parent doesn't know it any more.
  ASSERT_TRUE(Eventually([&] {
    logon.Enable();
    return router_.reinitialised == 1;
  }));
  logon.StopLogon(true);
  parent_.OpenDoor();
  logon.Start();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ASuccessfulLogonClearsTheMemoryOfTheReset) {
  ParentLogon::TheEscalation().logonResetTried = true;
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([] { return !ParentLogon::TheEscalation().logonResetTried; }));
  EXPECT_TRUE(log_.Contains("Logged on to parent router as"));
  logon.StopLogon(false);
}

}  // namespace
}  // namespace MessageRouter
