// How the thread ends, and whether it takes leave of the parent.
#include "broker/CorbaExceptions.h"
#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

TEST_F(ParentLogonTest, AStopWhileLoggedOnTakesLeaveOnce) {
  RunUntil([&] { return LogsOn(); }, true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
  EXPECT_TRUE(log_.Has(kLogInfo, "Logged off from parent router\n"));
}

TEST_F(ParentLogonTest, AReinitialisationTakesNoLeave) {
  RunUntil([&] { return LogsOn(); });
  EXPECT_EQ(parent_.Calls("Logoff"), 0u);
}

TEST_F(ParentLogonTest, ALeaveThatFailsIsLogged) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  parent_.SetOnCall([](const std::string&) { throw BrelixMessaging::NotLoggedOn(); });
  logon.StopLogon(true);
  EXPECT_TRUE(log_.Has(kLogError, "ParentLogon::Process: Caught CORBA " +
                                      Broker::Describe(BrelixMessaging::NotLoggedOn()) +
                                      " Logoff\n"));
  EXPECT_FALSE(log_.Contains("Logged off from parent router\n"));
}

TEST_F(ParentLogonTest, AStopBetweenRegistrationAndLogonTakesNoLeave) {
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return parent_.Calls("Logon") == 1; }, true);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_EQ(parent_.Calls("Logoff"), 0u);
}

TEST_F(ParentLogonTest, AStopAfterTheParentAddressWasEmptiedTakesLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  SetConfigString("ParentAddress", "");
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
}

TEST_F(ParentLogonTest, AReinitialisationDuringTheLogonTakesNoLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation == "Logon") logon.RequestStopLogon(false);
  });
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(parent_.Calls("Logoff"), 0u);
  EXPECT_FALSE(log_.Contains("Logged on to parent router as"));
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
}

TEST_F(ParentLogonTest, AStopDuringTheLogonTakesLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation == "Logon") logon.RequestStopLogon(true);
  });
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") == 1; }));
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
}

TEST_F(ParentLogonTest, AfterAReinitialisationItTakesLeaveAgain) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  logon.Start();
  ASSERT_TRUE(LogsOn(2));
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
}

TEST_F(ParentLogonTest, StartedAnewAfterItsLeaveItRegistersAnew) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(true);
  logon.Start();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Register"), 2u);
}

TEST_F(ParentLogonTest, StartedAnewItIsNotRegistered) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(true);
  host_.nothingThere = true;
  logon.Start();
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(true);
  EXPECT_TRUE(
      log_.Has(kLogWarning, "Register parent retry failed after 10 attempts. Resetting router..."));
}

}  // namespace
}  // namespace MessageRouter
