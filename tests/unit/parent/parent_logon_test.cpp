// The way of a router to its parent, and what ends a session.
#include <fstream>

#include "broker/CorbaExceptions.h"
#include "parent_logon_fixture.h"
#include "support/AllocationFailure.h"
#include "support/RemoteDoor.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;

TEST_F(ParentLogonTest, WithoutACertificateItIsIdleAndLogsNothing) {
  ParentLogon logon(routing_, router_, kShortSecond);
  logon.Start();
  // Some hundred times as long as its pauses.
  EXPECT_TRUE(Never(
      [&] {
        logon.LinkLost();
        return !parent_.AllCalls().empty();
      },
      300ms));
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.level, kLogTrace) << line.text;
  logon.Enable();
  EXPECT_TRUE(LogsOn());
  logon.StopLogon(true);
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
  RunUntil([&] { return LogsOn(); });
  EXPECT_THAT(host_.Pollers(), ElementsAre(table_.Parent()));
  EXPECT_THAT(host_.Senders(), ElementsAre(table_.Parent()));
}

TEST_F(ParentLogonTest, AfterTheLogonAParentThatCanBeNotifiedIsOwedAThresholdCallFirst) {
  RunUntil([&] { return LogsOn(); });
  EXPECT_THAT(host_.ThresholdCalls(), ElementsAre(table_.Parent()));
  EXPECT_THAT(host_.Senders(), testing::IsEmpty());
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
  BeginAndSettle(logon);
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

// Between the look at the link and the wait, the thread reads the interval: the store that finds
// its file damaged then says so.
TEST_F(ParentLogonTest, ALinkLostBeforeTheWaitForTheHeartbeatBeginsIsNotForgotten) {
  SetConfigInt("HeartbeatInterval", 0);
  ParentLogon logon(routing_, router_, kShortSecond);
  router_.status.onReport = [&] {
    if (parent_.Calls("Logon") == 1) std::ofstream("brelix.config") << "damaged\n";
  };
  log_.onRecord = [&](const std::string& text) {
    if (text.find("cannot be read") != std::string::npos) logon.LinkLost();
  };
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_EQ(log_.Count("cannot be read"), 1u);
}

// Another router of the parent's name logs on here before the thread has taken note of its own
// session, and the entry tells of the lost link while there is none yet.
TEST_F(ParentLogonTest, ASessionThatAnotherOfTheParentsNameBeginsIsNotTakenForItsOwn) {
  std::atomic<bool> usurped{false};
  log_.onRecord = [&](const std::string& text) {
    if (!text.starts_with("RouterTableEntry state (") || usurped.exchange(true)) return;
    table_.Parent()->LogonRouter("boss", BrelixMessaging::RouterConsumer::_nil(),
                                 BrelixMessaging::RouterSupplier::_nil(),
                                 BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  };
  RunUntil([&] { return parent_.Calls("Logon") >= 2 && LogsOn(); });
  EXPECT_TRUE(usurped);
}

TEST_F(ParentLogonTest, EnablingItAgainWhileItIsLoggedOnChangesNothing) {
  using TestSupport::RemoteDoor;
  const RemoteDoor door;
  parent_.ShowDoor(BrelixMessaging::Router_var(door.Reference<BrelixMessaging::Router>()));
  SetConfigInt("HeartbeatTimeout", 20000);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  const std::size_t before = door.Calls(RemoteDoor::kPlace);
  // By the second question the answer to the first has had its effect.
  ASSERT_TRUE(Eventually([&] {
    logon.Enable();
    return door.Calls(RemoteDoor::kPlace) >= before + 2;
  }));
  logon.StopLogon(true);
  EXPECT_EQ(door.Calls("Register"), 1u);
  EXPECT_EQ(door.Calls("Logon"), 1u);
  EXPECT_EQ(door.Calls("Logoff"), 1u);
}

TEST_F(ParentLogonTest, EachCallIsRepeatedOnceAtOnce) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  parent_.SetOnCall([&](const std::string& operation) {
    if (parent_.Calls(operation) == 1) throw CORBA::COMM_FAILURE();
  });
  RunUntil([&] { return LogsOn(); }, true);
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

TEST_F(ParentLogonTest, ALogonOffersWhatWaitsThenPollsThenIsLoggedThenReported) {
  LetItBePushedTo(AReferenceTo<BrelixMessaging::RouterConsumer>("parent-consumer"));
  std::vector<std::string> order;
  const auto pass = [&](const char* step) {
    order.emplace_back(step);
    if (log_.Contains("Logged on to parent router as")) order.emplace_back("logged");
  };
  host_.onOfferToSenders = [&] { pass("offered"); };
  host_.onNotifiedPoll = [&] { pass("polled"); };
  router_.status.onReport = [&] { pass("reported"); };
  RunUntil([&] { return LogsOn(); });
  EXPECT_THAT(order, ElementsAre("offered", "polled", "reported", "logged"));
}

// The mutex of the thread is a leaf: whoever takes it twice ends the process.
TEST_F(ParentLogonTest, WhatALogonTellsTheRouterMayComeBackToTheThread) {
  LetItBePushedTo(AReferenceTo<BrelixMessaging::RouterConsumer>("parent-consumer"));
  ParentLogon logon(routing_, router_, kShortSecond);
  std::atomic<int> back{0};
  const auto comeBack = [&] {
    if (!log_.Contains("Parent is boss")) return;
    logon.Enable();
    ++back;
  };
  host_.onOfferToSenders = comeBack;
  host_.onNotifiedPoll = comeBack;
  router_.status.onReport = comeBack;
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return back == 3; }));
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, TheRoutersNameIsLoggedAsPeopleReadIt) {
  OwnIdentity::Set("caf+AOk-", "router's certificate");
  RunUntil([&] { return LogsOn(); });
  EXPECT_TRUE(log_.Has(kLogInfo, "Logged on to parent router as caf\xC3\xA9\n"));
}

TEST_F(ParentLogonTest, EachLogonReadsAnewWhichSideIsActive) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  const TestSupport::FakeParent::Logon first = parent_.LastLogon();
  SetConfigBool("ActiveConsumer", false);
  SetConfigBool("ActiveSupplier", false);
  table_.Parent()->Logoff();
  ASSERT_TRUE(LogsOn(2));
  const TestSupport::FakeParent::Logon second = parent_.LastLogon();
  logon.StopLogon(false);
  EXPECT_TRUE(first.notify && first.supplier && !first.consumer);
  EXPECT_TRUE(!second.notify && !second.supplier && second.consumer);
}

TEST_F(ParentLogonTest, ACorbaExceptionOutOfAStepIsLoggedAndTheThreadGoesOn) {
  const CORBA::NO_RESOURCES failure(7, CORBA::COMPLETED_NO);
  host_.onObjects = [&, failed = false]() mutable {
    if (!std::exchange(failed, true)) throw failure;
  };
  RunUntil([&] { return LogsOn(); });
  EXPECT_TRUE(log_.Has(kLogError,
                       "ParentLogon::Process: Caught CORBA " + Broker::Describe(failure) + " \n"));
  EXPECT_EQ(parent_.Calls("Register"), 1u);
}

TEST_F(ParentLogonTest, AFailureForWhoseLineThereIsNoMemoryIsFollowedByTheNextAttempt) {
  std::optional<TestSupport::AllocationFailure> failure;
  host_.onObjects = [&failure] {
    if (failure) return;
    failure.emplace(0, 1);
    throw CORBA::OBJ_ADAPTER(0, CORBA::COMPLETED_NO);
  };
  RunUntil([&] { return LogsOn(); });
  EXPECT_FALSE(log_.Contains("ParentLogon::Process: Caught"));
}

}  // namespace
}  // namespace MessageRouter
