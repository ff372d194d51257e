#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;

constexpr char kForced[] =
    "Registering with parent failed after resetting router. Forcing router shutdown. Router should "
    "restart automatically.";

TEST_F(ParentLogonTest, WithoutACertificateItIsIdleAndLogsNothing) {
  ParentLogon logon(routing_, router_, kShortSecond);
  logon.Start();
  logon.LinkLost();
  logon.StopLogon(true);
  EXPECT_TRUE(parent_.AllCalls().empty());
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.level, kLogTrace) << line.text;
}

TEST_F(ParentLogonTest, RegistersAndLogsOn) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  EXPECT_THAT(parent_.AllCalls(), ElementsAre("GetName", "GetRouter", "Register", "Logon"));
  for (const char* line :
       {"Successfully validated parent router's IOR\n", "Accessing parent\n", "Parent is boss\n",
        "Registered with parent router\n", "Logged on to parent router as router1\n"}) {
    EXPECT_TRUE(log_.Has(kLogInfo, line)) << line;
  }
  EXPECT_TRUE(log_.Has(kLogInfo,
                       "Received parent router's IOR:\n" + ParentTests::IorOf("192.0.2.1") + "\n"));
  EXPECT_EQ(router_.parentAddresses, ParentTests::IorOf("192.0.2.1"));
  EXPECT_EQ(table_.Find("boss"), table_.Parent());
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AfterTheLogonTheParentIsPolledAndWhatWaitsIsOffered) {
  // A parent that can be notified is owed a threshold call first; this one is pushed to.
  LetItBePushedTo(AReferenceTo<BrelixMessaging::RouterConsumer>("parent-consumer"));
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  EXPECT_THAT(host_.Pollers(), ElementsAre(table_.Parent()));
  EXPECT_THAT(host_.Senders(), ElementsAre(table_.Parent()));
}

TEST_F(ParentLogonTest, AfterTheLogonAParentThatCanBeNotifiedIsOwedAThresholdCallFirst) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  EXPECT_THAT(host_.ThresholdCalls(), ElementsAre(table_.Parent()));
  EXPECT_THAT(host_.Senders(), testing::IsEmpty());
}

TEST_F(ParentLogonTest, AlreadyRegisteredIsSuccess) {
  parent_.SetOnCall([](const std::string& operation) {
    if (operation == "Register") throw BrelixMessaging::AlreadyRegistered();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn());
  EXPECT_TRUE(log_.Has(kLogDebug, "Already registered with parent router\n"));
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AnInvalidIorElevenTimesResetsTheRouterAndElevenMoreEndTheProcess) {
  ServeIor("IOR:00");
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
    logon.StopLogon(false);
  }
  const std::string complaint = "Cannot log on to the parent router, because its IOR is invalid\n";
  EXPECT_EQ(log_.Count(complaint), 11u);
  EXPECT_TRUE(
      log_.Has(kLogWarning, "Register parent retry failed after 10 attempts. Resetting router..."));
  EXPECT_EQ(router_.ended, 0);

  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
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
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 2; }));
  logon.StopLogon(false);
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(ParentLogonTest, ElevenFailedLogonsResetTheRouterAndElevenMoreEndTheProcess) {
  RefuseLogon();
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
    logon.StopLogon(false);
  }
  EXPECT_EQ(parent_.Calls("Logon"), 11u);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_TRUE(log_.Has(kLogWarning, "Parent logon failed after 10 attempts. Resetting router..."));
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(parent_.Calls("Logon"), 22u);
  EXPECT_TRUE(log_.Has(kLogWarning, kForced));
}

TEST_F(ParentLogonTest, AResetThatDoesNotStopItEndsTheProcess) {
  SetConfigInt("ResetTimeout", 3);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "Resetting router failed to terminate parent logon thread after 3 seconds. "
                       "Forcing router shutdown. Router should restart automatically."));
  EXPECT_EQ(router_.exitStatus, 0);
}

TEST_F(ParentLogonTest, AStopBeforeTheRegistrationSetsItsFlag) {
  RefuseRegistration();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") == 1; }));
  logon.StopLogon(false);
  EXPECT_TRUE(ParentLogon::TheEscalation().registerResetTried);
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
  EXPECT_EQ(parent_.Calls("Logon"), 0u);
}

TEST_F(ParentLogonTest, AStopBeforeTheLogonSetsItsFlagAlone) {
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") == 1; }));
  logon.StopLogon(false);
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  EXPECT_TRUE(ParentLogon::TheEscalation().logonResetTried);
}

TEST_F(ParentLogonTest, AfterSuchAStopTheNextSeriesOfFailuresEndsTheProcess) {
  RefuseRegistration();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") == 1; }));
    logon.StopLogon(false);
  }
  SetConfigInt("LogonRetryInterval", 1);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(router_.reinitialised, 0);
}

TEST_F(ParentLogonTest, AStopWhileLoggedOnTakesLeaveOnce) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
  EXPECT_TRUE(log_.Has(kLogInfo, "Logged off from parent router\n"));
}

TEST_F(ParentLogonTest, AReinitialisationTakesNoLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  EXPECT_EQ(parent_.Calls("Logoff"), 0u);
}

TEST_F(ParentLogonTest, ALeaveThatFailsIsLogged) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  parent_.SetOnCall([](const std::string&) { throw BrelixMessaging::NotLoggedOn(); });
  logon.StopLogon(true);
  EXPECT_EQ(log_.Count("ParentLogon::Process: Caught CORBA"), 1u);
  EXPECT_FALSE(log_.Contains("Logged off from parent router\n"));
}

TEST_F(ParentLogonTest, ALostLinkIsLoggedOnAgainWithoutANewRegistration) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  table_.Parent()->Logoff();
  EXPECT_TRUE(LogsOn(2));
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_EQ(parent_.Calls("Logon"), 2u);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ALostLinkToAParentThatForgotItsDoorIsRegisteredAnew) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  parent_.CloseDoor();
  table_.Parent()->Logoff();
  EXPECT_TRUE(Eventually(
      [&] { return log_.Has(kLogDebug, "Failed to validate connection to parent router\n"); }));
  EXPECT_TRUE(Eventually([&] { return parent_.Calls("GetName") >= 2; }));
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ALinkLostDuringTheLogonIsNotForgotten) {
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation == "Logon" && parent_.Calls("Logon") == 1) table_.Parent()->Logoff();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn());
  EXPECT_EQ(parent_.Calls("Logon"), 2u);
  logon.StopLogon(false);
}

class ShortestRetryInterval : public ParentLogonTest, public testing::WithParamInterface<int> {};

TEST_P(ShortestRetryInterval, IsOneSecond) {
  SetConfigInt("LogonRetryInterval", static_cast<std::uint32_t>(GetParam()));
  RefuseRegistration();
  ParentLogon logon(routing_, router_, 20ms);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 1; }));
  const auto begin = Clock::now();
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  // Ten pauses; the first may have begun before the look at the clock.
  EXPECT_GE(Clock::now() - begin, 180ms);
  logon.StopLogon(false);
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
    if (parent_.Calls(operation) == 3) SetConfigInt("LogonRetryInterval", 200);
    throw BrelixMessaging::Rejected();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 3; }));
  const auto begin = Clock::now();
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 5; }));
  EXPECT_GE(Clock::now() - begin, 300ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AParentAddressThatIsSetMeanwhileIsTheNextToBeTried) {
  SetConfigString("ParentAddress", "no-such-host.invalid");
  SetConfigInt("LogonRetryInterval", 50);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("IOR from no-such-host.invalid:"); }));
  SetConfigString("ParentAddress", "127.0.0.1");
  EXPECT_TRUE(LogsOn());
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AResetIsWaitedForTwoMinutesUnlessSetOtherwise) {
  ConfigureNothing();
  SetConfigInt("LogonRetryInterval", 1);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after 120 seconds."));
}

TEST_F(ParentLogonTest, AResetTimeoutThatIsSetMeanwhileCounts) {
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation != "Register") return;
    if (parent_.Calls(operation) == 11) SetConfigInt("ResetTimeout", 3);
    throw BrelixMessaging::Rejected();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after 3 seconds."));
}

TEST_F(ParentLogonTest, AStopBetweenRegistrationAndLogonTakesNoLeave) {
  RefuseLogon();
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") == 1; }));
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_EQ(parent_.Calls("Logoff"), 0u);
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

TEST_F(ParentLogonTest, AStopAfterTheParentAddressWasEmptiedTakesLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  SetConfigString("ParentAddress", "");
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
}

TEST_F(ParentLogonTest, ANegativeResetTimeoutIsNoTimeAndIsShownAsItIs) {
  SetConfigInt("ResetTimeout", static_cast<std::uint32_t>(-5));
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Contains("failed to terminate parent logon thread after -5 seconds."));
}

TEST_F(ParentLogonTest, BetweenAttemptsToRegisterTheIntervalPasses) {
  SetConfigInt("LogonRetryInterval", 20);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 1; }));
  const auto begin = Clock::now();
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 6; }));
  // The first of the five may have begun before the look at the clock.
  EXPECT_GE(Clock::now() - begin, 80ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, BetweenAttemptsToLogOnTheIntervalPasses) {
  SetConfigInt("LogonRetryInterval", 20);
  RefuseLogon();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") >= 1; }));
  const auto begin = Clock::now();
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") >= 6; }));
  EXPECT_GE(Clock::now() - begin, 80ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, NoNewsCutsAPauseShort) {
  SetConfigInt("LogonRetryInterval", 100);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Register") >= 1; }));
  const auto begin = Clock::now();
  ASSERT_TRUE(Eventually([&] {
    logon.LinkLost();
    logon.Enable();
    return parent_.Calls("Register") >= 4;
  }));
  EXPECT_GE(Clock::now() - begin, 200ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ASessionThatEndsAtOnceIsNotBegunAnewAtOnce) {
  SetConfigInt("LogonRetryInterval", 20);
  router_.status.onReport = [this] { table_.Parent()->Logoff(); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") >= 1; }));
  const auto begin = Clock::now();
  ASSERT_TRUE(Eventually([&] { return parent_.Calls("Logon") >= 6; }));
  EXPECT_GE(Clock::now() - begin, 80ms);
  logon.StopLogon(false);
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
    if (failed.exchange(true)) return;
    table_.Parent()->Logoff();
    throw std::runtime_error("no report");
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("no report"); }));
  const auto begin = Clock::now();
  ASSERT_TRUE(LogsOn(2));
  const auto passed = Clock::now() - begin;
  EXPECT_GE(passed, 900ms);
  EXPECT_LT(passed, 1900ms);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ALogonClearsTheMemoryOfTheResetEvenIfItsSessionEndsAtOnce) {
  ParentLogon::TheEscalation().logonResetTried = true;
  router_.status.onReport = [this] {
    RefuseLogon();
    table_.Parent()->Logoff();
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised + router_.ended != 0; }));
  EXPECT_EQ(router_.ended, 0);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ANameThatNoRouterHasIsAFailedAttempt) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  const struct {
    std::string name;
    std::string shown;
  } rows[] = {{"boss\nforged", "boss?forged"},
              {"boss\x7F", "boss?"},
              {":", ":"},
              {std::string(4097, 'b'), std::string(1024, 'b') + "..."}};
  for (const auto& row : rows) {
    log_.Clear();
    parent_.name = row.name;
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    EXPECT_TRUE(Eventually([&] {
      return log_.Has(kLogError, "Cannot register with the parent router, because of its name\n");
    })) << row.shown;
    logon.StopLogon(false);
    EXPECT_TRUE(log_.Has(kLogInfo, "Parent is " + row.shown + "\n"));
    EXPECT_EQ(table_.Find(row.name), nullptr) << row.shown;
  }
  EXPECT_EQ(parent_.Calls("GetName"), 4u);
  EXPECT_EQ(parent_.Calls("Register"), 0u);
}

TEST_F(ParentLogonTest, AnyOtherNameIsTheParents) {
  for (const std::string& name : {std::string("a:b"), std::string(4096, 'b')}) {
    log_.Clear();
    parent_.name = name;
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    EXPECT_TRUE(LogsOn());
    logon.StopLogon(false);
    EXPECT_EQ(table_.Find(name), table_.Parent());
  }
}

TEST_F(ParentLogonTest, WhatCannotMakeAReferenceIsAFailedAttempt) {
  host_.onStringToObject = [] { throw omniORB::fatalException("file", 1, "check failed"); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(log_.Count("ParentLogon::RegisterParent: Caught CORBA INTERNAL"), 11u);
}

TEST_F(ParentLogonTest, EnablingItAgainWhileItIsLoggedOnChangesNothing) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.Enable();
  logon.StopLogon(true);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
  EXPECT_EQ(parent_.Calls("Logon"), 1u);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
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

TEST_F(ParentLogonTest, EachCallIsRepeatedOnceAtOnce) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  parent_.SetOnCall([&](const std::string& operation) {
    if (parent_.Calls(operation) == 1) throw CORBA::COMM_FAILURE();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(true);
  EXPECT_THAT(parent_.AllCalls(),
              ElementsAre("GetName", "GetName", "GetRouter", "GetRouter", "Register", "Register",
                          "Logon", "Logon", "Logoff", "Logoff"));
  EXPECT_TRUE(log_.Has(kLogInfo, "Logged off from parent router\n"));
}

TEST_F(ParentLogonTest, ASecondFailureOfACallIsAFailedAttempt) {
  for (const char* failing : {"GetName", "GetRouter", "Register", "Logon"}) {
    SetConfigInt("LogonRetryInterval", 3600 * 1000);
    log_.Clear();
    const std::size_t before = parent_.Calls(failing);
    parent_.SetOnCall([&](const std::string& operation) {
      if (operation == failing) throw CORBA::COMM_FAILURE();
    });
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    EXPECT_TRUE(Eventually([&] { return log_.Contains("Caught CORBA"); })) << failing;
    logon.StopLogon(false);
    EXPECT_EQ(parent_.Calls(failing), before + 2) << failing;
    EXPECT_FALSE(log_.Contains("Logged on to parent router as")) << failing;
  }
}

TEST_F(ParentLogonTest, ASuccessfulLogonClearsTheMemoryOfTheReset) {
  ParentLogon::TheEscalation().logonResetTried = true;
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  EXPECT_FALSE(ParentLogon::TheEscalation().logonResetTried);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AReferenceToNothingIsAFailedAttempt) {
  host_.nothingThere = true;
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(log_.Count("Successfully validated parent router's IOR\n"), 11u);
  EXPECT_TRUE(parent_.AllCalls().empty());
}

TEST_F(ParentLogonTest, AParentWithoutADoorForRoutersIsAFailedAttempt) {
  parent_.HideDoor();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(false);
  EXPECT_EQ(parent_.Calls("GetRouter"), 11u);
  EXPECT_EQ(parent_.Calls("Register"), 0u);
}

TEST_F(ParentLogonTest, TheHealthReportHearsOfAnInvalidIorAndOfItsEnd) {
  ServeIor("IOR:00");
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    ASSERT_TRUE(Eventually([&] { return router_.status.All().size() >= 4; }));
    logon.StopLogon(false);
  }
  EXPECT_THAT(router_.status.All(),
              ElementsAre("parent 127.0.0.1", "clear 1", "parent ", "raise 2 "));
  ServeIor(ParentTests::IorOf("192.0.2.1"));
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return router_.status.All().size() >= 8; }));
  logon.StopLogon(false);
  EXPECT_THAT(router_.status.All(),
              ElementsAre("parent 127.0.0.1", "clear 1", "parent ", "raise 2 ", "parent 127.0.0.1",
                          "clear 1", "clear 2", "report"));
}

TEST_F(ParentLogonTest, TheReportIsWrittenWhenEverythingElseOfTheLogonIsDone) {
  LetItBePushedTo(AReferenceTo<BrelixMessaging::RouterConsumer>("parent-consumer"));
  bool offered = false;
  bool polled = false;
  bool logged = false;
  router_.status.onReport = [&] {
    offered = !host_.Senders().empty();
    polled = !host_.Pollers().empty();
    logged = log_.Has(kLogInfo, "Logged on to parent router as router1\n");
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  logon.StopLogon(false);
  EXPECT_TRUE(offered);
  EXPECT_TRUE(polled);
  EXPECT_TRUE(logged);
}

TEST_F(ParentLogonTest, WhoeverAnswersAtTheIorPortMakesNoLogLines) {
  ServeIor("IOR:\nforged\r\x1B\x7F.");
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return log_.Contains("its IOR is invalid"); }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogInfo, "Received parent router's IOR:\nIOR:?forged???.\n"));
}

TEST_F(ParentLogonTest, WhatFailsInTheMiddleOfALogonIsTriedAgain) {
  // Nothing but the answer makes objects now: its notifier is there before the call.
  SetConfigBool("ActiveSupplier", false);
  host_.objects.FailCreationAfter(1);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn());
  EXPECT_EQ(log_.Count("ParentLogon::Process: Caught creation failed"), 1u);
  EXPECT_EQ(parent_.Calls("Logon"), 2u);
  EXPECT_TRUE(table_.Parent()->IsLoggedOn());
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, WhatFailsUnexpectedlyIsTriedAgainAfterTheInterval) {
  SetConfigInt("LogonRetryInterval", 20);
  host_.NoObjects();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  const std::string failure = "ParentLogon::Process: Caught ServantHelper not initialized";
  ASSERT_TRUE(Eventually([&] { return log_.Count(failure) >= 1; }));
  const auto begin = Clock::now();
  EXPECT_TRUE(Eventually([&] { return log_.Count(failure) >= 6; }));
  EXPECT_GE(Clock::now() - begin, 80ms);
  logon.StopLogon(false);
  EXPECT_EQ(router_.reinitialised, 0);
}

TEST(GetParentIor, FetchesTheTextFromTheConfiguredParent) {
  TestSupport::ScratchConfiguration configuration;
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR("IOR:0102");
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  EXPECT_EQ(ParentLogon::GetParentIOR({&reporter, nullptr}), "IOR:0102");
}

TEST(GetParentIor, FetchesTheTextForTwoAtOnce) {
  TestSupport::ScratchConfiguration configuration;
  const std::string text = "IOR:" + std::string(20000, '1');
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR(text);
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  std::atomic<int> right{0};
  const auto fetch = [&] {
    for (int i = 0; i < 20; ++i) right += ParentLogon::GetParentIOR({&reporter, nullptr}) == text;
  };
  std::thread other(fetch);
  fetch();
  other.join();
  EXPECT_EQ(right, 40);
}

TEST(GetParentIor, EmptyParentAddressGivesAnEmptyResult) {
  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  EXPECT_EQ(ParentLogon::GetParentIOR({}), "");
  EXPECT_FALSE(log.Contains("Getting parent router IOR"));
}

}  // namespace
}  // namespace MessageRouter
