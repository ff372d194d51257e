// The heartbeat of the parent logon.
#include "parent/HeartbeatPeriods.h"
#include "parent_logon_fixture.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

class CountingConsumer : public POA_BrelixMessaging::RouterConsumer {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope&) override {}
  void Heartbeat() override {
    ++heartbeats;
    if (onHeartbeat) onHeartbeat();
  }
  std::function<void()> onHeartbeat;
  std::atomic<int> heartbeats{0};
};

class HeartbeatTest : public ParentLogonTest {
 protected:
  HeartbeatTest() : servant_(new CountingConsumer) {
    const CORBA::Object_var root =
        TestSupport::ReferenceOrb()->resolve_initial_references("RootPOA");
    adapter_ = PortableServer::POA::_narrow(root);
    id_ = adapter_->activate_object(servant_.in());
    const CORBA::Object_var object = adapter_->id_to_reference(id_);
    const auto consumer = BrelixMessaging::RouterConsumer::_narrow(object);
    LetItBePushedTo(consumer);
    CORBA::release(consumer);
    SetConfigInt("HeartbeatInterval", 1);
    // Long enough, even in these seconds.
    SetConfigInt("HeartbeatTimeout", 3600 * 1000);
  }
  ~HeartbeatTest() override { adapter_->deactivate_object(id_); }

  PortableServer::POA_var adapter_;
  PortableServer::Servant_var<CountingConsumer> servant_;
  PortableServer::ObjectId_var id_;
};

TEST_F(HeartbeatTest, ComesAgainAndAgain) {
  RunUntil([&] { return servant_->heartbeats >= 2; });
  EXPECT_TRUE(log_.Has(kLogInfo, "Calling parent with heartbeat..."));
  EXPECT_TRUE(log_.Has(kLogInfo, "Heartbeat to parent succeeded."));
  EXPECT_EQ(parent_.Calls("Logon"), 1u);
}

TEST_F(HeartbeatTest, DoesNotComeBeforeTheBasePeriodIsOver) {
  router_.status.onReport = [&] { moments_.Note(); };
  servant_->onHeartbeat = [&] { moments_.Note(); };
  ParentLogon logon(routing_, router_, std::chrono::milliseconds(5));
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return servant_->heartbeats >= 1; }));
  logon.StopLogon(false);
  ASSERT_GE(moments_.Count(), 2u);
  // Sixty of these seconds.
  EXPECT_GE(moments_.Between(0, 1), 300ms);
}

TEST_F(HeartbeatTest, ComesAtAMomentThatTheNameAndTheTimeOfTheStartGive) {
  std::int64_t start = TestSupport::FakeClock::kDefaultWall;
  while (HeartbeatPeriods("router1", start).Next(1) < std::chrono::seconds(118)) ++start;
  const TestSupport::FakeClock clock(start);
  router_.status.onReport = [&] { moments_.Note(); };
  servant_->onHeartbeat = [&] { moments_.Note(); };
  ParentLogon logon(routing_, router_, std::chrono::milliseconds(5));
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return moments_.Count() >= 2; }));
  logon.StopLogon(false);
  EXPECT_GE(moments_.Between(0, 1), 118 * 5ms);
  // Its thread looks at the clock, too.
  port_.Stop();
}

TEST_F(HeartbeatTest, WithAnIntervalOfZeroItIsNeverSent) {
  SetConfigInt("HeartbeatInterval", 0);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  EXPECT_TRUE(Never([&] { return log_.Contains("Calling parent with heartbeat..."); }, 300ms));
  // It waits for an event.
  table_.Parent()->Logoff();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
}

TEST_F(HeartbeatTest, AFailedOneLeadsToANewRegistrationAtOnce) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  servant_->onHeartbeat = [] { throw BrelixMessaging::NotLoggedOn(); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent failed."));
  EXPECT_GE(parent_.Calls("Register"), 2u);
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(HeartbeatTest, WhereTheParentIsNotPushedToItFailsAndItIsRegisteredWithAtOnce) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  parent_.consumer = BrelixMessaging::RouterConsumer::_nil();
  parent_.notify = AReferenceTo<BrelixMessaging::NotifyConsumer>("parent-notify");
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent failed."));
  EXPECT_GE(parent_.Calls("Register"), 2u);
  EXPECT_EQ(servant_->heartbeats, 0);
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(HeartbeatTest, AParentThatChangesItsNameTooOftenIsRegisteredWithNoMore) {
  servant_->onHeartbeat = [] { throw BrelixMessaging::NotLoggedOn(); };
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation == "GetName") {
      parent_.name = "boss" + std::to_string(parent_.Calls("GetName"));
    }
  });
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(table_.Find("boss20"), table_.Parent());
  EXPECT_EQ(table_.Find("boss21"), nullptr);
  EXPECT_EQ(log_.Count("because of its name"), 11u);
}

TEST_F(HeartbeatTest, AnIntervalBeyondTheClockIsALongOne) {
  // With these seconds the period, added to the time, would lie in the past.
  SetConfigInt("HeartbeatInterval", 3'078'000'000u);
  ParentLogon logon(routing_, router_, std::chrono::milliseconds(50));
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  EXPECT_TRUE(Never([&] { return log_.Contains("Calling parent with heartbeat..."); }, 300ms));
  logon.StopLogon(false);
}

TEST_F(HeartbeatTest, AStopDuringItLetsItEndAndTakesLeave) {
  ParentLogon logon(routing_, router_, kShortSecond);
  servant_->onHeartbeat = [&] { logon.RequestStopLogon(true); };
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return servant_->heartbeats >= 1; }));
  logon.StopLogon(true);
  EXPECT_TRUE(log_.Contains("Heartbeat to parent succeeded."));
  EXPECT_EQ(servant_->heartbeats, 1);
  EXPECT_EQ(parent_.Calls("Logoff"), 1u);
}

TEST_F(HeartbeatTest, ALinkLostDuringItIsLoggedOnAgainAfterTheInterval) {
  SetConfigInt("LogonRetryInterval", 50);
  servant_->onHeartbeat = [&] {
    if (servant_->heartbeats != 1) return;
    moments_.Note();
    table_.Parent()->Logoff();
  };
  parent_.SetOnCall([&](const std::string& operation) {
    if (operation == "Logon" && moments_.Count() == 1) moments_.Note();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  ASSERT_EQ(moments_.Count(), 2u);
  EXPECT_GE(moments_.Between(0, 1), 50ms);
  EXPECT_EQ(parent_.Calls("Register"), 1u);
}

TEST_F(HeartbeatTest, OneThatTakesTooLongEndsTheProcess) {
  SetConfigInt("HeartbeatTimeout", 200);
  std::atomic<bool> answer{false};
  servant_->onHeartbeat = [&] { answer.wait(false); };
  log_.onRecord = [this](const std::string& text) {
    if (text == "Calling parent with heartbeat..." || text.starts_with("Heartbeat to parent ")) {
      moments_.Note();
    }
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  EXPECT_EQ(router_.exitStatus, 0);
  EXPECT_GE(moments_.Between(0, 1), 200ms);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent timed out, restarting router..."));
  answer = true;
  answer.notify_all();
  logon.StopLogon(false);
}

class UnlimitedHeartbeat : public HeartbeatTest, public testing::WithParamInterface<int> {};

TEST_P(UnlimitedHeartbeat, IsWaitedForWithATimeoutBelowOne) {
  SetConfigInt("HeartbeatTimeout", static_cast<std::uint32_t>(GetParam()));
  std::atomic<bool> answer{false};
  servant_->onHeartbeat = [&] { answer.wait(false); };
  ParentLogon logon(routing_, router_, std::chrono::microseconds(1));
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return servant_->heartbeats >= 1; }));
  // Many hours of these seconds.
  EXPECT_TRUE(Never([&] { return log_.Contains("Heartbeat to parent timed out"); }, 200ms));
  EXPECT_FALSE(log_.Contains("Heartbeat to parent succeeded."));
  answer = true;
  answer.notify_all();
  EXPECT_TRUE(Eventually([&] { return log_.Contains("Heartbeat to parent succeeded."); }));
  logon.StopLogon(false);
  EXPECT_EQ(router_.ended, 0);
}

INSTANTIATE_TEST_SUITE_P(Timeouts, UnlimitedHeartbeat, testing::Values(0, -5));

TEST_F(HeartbeatTest, ComesAfterTwoToFourHoursUnlessSetOtherwise) {
  ConfigureNothing();
  SetConfigBool("ActiveSupplier", false);
  std::atomic<Clock::rep> begin{0};
  std::atomic<Clock::rep> end{0};
  router_.status.onReport = [&] { begin = Clock::now().time_since_epoch().count(); };
  servant_->onHeartbeat = [&] { end = Clock::now().time_since_epoch().count(); };
  ParentLogon logon(routing_, router_, std::chrono::microseconds(100));
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return end != 0; }));
  logon.StopLogon(false);
  const Clock::duration passed(end - begin);
  EXPECT_GE(passed, 720ms);
  EXPECT_LT(passed, 1440ms + 600ms);
}

TEST_F(HeartbeatTest, AnIntervalThatIsSetMeanwhileCountsFromTheNextWaitOn) {
  SetConfigInt("HeartbeatInterval", 0);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  SetConfigInt("HeartbeatInterval", 1);
  table_.Parent()->Logoff();
  EXPECT_TRUE(Eventually([&] { return servant_->heartbeats >= 1; }));
  logon.StopLogon(false);
}

TEST_F(HeartbeatTest, ATimeoutThatIsSetMeanwhileCountsForTheNext) {
  SetConfigInt("HeartbeatTimeout", 0);
  std::atomic<bool> answer{false};
  servant_->onHeartbeat = [&] {
    if (servant_->heartbeats == 1) SetConfigInt("HeartbeatTimeout", 1);
    if (servant_->heartbeats == 2) answer.wait(false);
  };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  EXPECT_EQ(servant_->heartbeats, 2);
  answer = true;
  answer.notify_all();
  logon.StopLogon(false);
}

// On its way out the thread passes the ends of both steps again.
TEST_F(HeartbeatTest, AStopWithoutLeaveOfAnAttachedRouterSetsTheFlagOfTheLogonAlone) {
  ParentLogon::Escalation& escalation = ParentLogon::TheEscalation();
  servant_->onHeartbeat = [&] { escalation.registerResetTried = true; };
  RunUntil([&] { return servant_->heartbeats >= 1; });
  EXPECT_FALSE(escalation.registerResetTried);
  EXPECT_TRUE(escalation.logonResetTried);
}

TEST_F(HeartbeatTest, AStopWithLeaveOfAnAttachedRouterSetsNeitherFlag) {
  ParentLogon::Escalation& escalation = ParentLogon::TheEscalation();
  servant_->onHeartbeat = [&] {
    escalation.registerResetTried = true;
    escalation.logonResetTried = true;
  };
  RunUntil([&] { return servant_->heartbeats >= 1; }, true);
  EXPECT_FALSE(escalation.registerResetTried);
  EXPECT_FALSE(escalation.logonResetTried);
}

}  // namespace
}  // namespace MessageRouter
