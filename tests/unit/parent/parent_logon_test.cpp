#include "parent/ParentLogon.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "config/Configuration.h"
#include "ior_text.h"
#include "logging/Log.h"
#include "parent/IOR_Sender.h"
#include "security/OwnIdentity.h"
#include "support/FakeParent.h"
#include "support/FakeRoutingHost.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {
namespace {

using TestSupport::AReferenceTo;
using testing::ElementsAre;

constexpr std::chrono::seconds kPatience{60};

template <class Condition>
bool Eventually(Condition&& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// The rest of the router, as the parent logon sees it.
class FakeLogonHost : public ParentLogonHost {
 public:
  StatusReporting::StatusReporter& Status() override { return status_; }
  void SetParentAddresses(const std::string& ior) override { parentAddresses = ior; }
  void Reinitialize() override { ++reinitialised; }
  void EndProcess(int status) override {
    exitStatus = status;
    ++ended;
  }

  std::string parentAddresses;
  std::atomic<int> reinitialised{0};
  std::atomic<int> ended{0};
  std::atomic<int> exitStatus{-1};

 private:
  StatusReporting::StatusReporter status_{""};
};

// A routing host whose references all lead to the parent.
class FakeHost : public TestSupport::FakeRoutingHost {
 public:
  explicit FakeHost(TestSupport::FakeParent& parent) : parent_(parent) {}
  CORBA::Object_ptr StringToObject(const std::string&) override {
    return CORBA::Object::_duplicate(parent_.Root());
  }
  void ParentLinkLost() override {
    FakeRoutingHost::ParentLinkLost();
    if (logon != nullptr) logon->LinkLost();
  }
  ParentLogon* logon = nullptr;

 private:
  TestSupport::FakeParent& parent_;
};

// A router named "router1" with a parent named "boss", whose IOR port is open. A second of the
// parent logon takes a millisecond.
class ParentLogonTest : public testing::Test {
 protected:
  ParentLogonTest()
      : host_(parent_),
        table_(host_, (configuration_.Folder() / "table_router.txt").string()),
        routing_(host_, table_) {
    OwnIdentity::Set("router1", "router's certificate");
    ParentLogon::TheEscalation().registerResetTried = false;
    ParentLogon::TheEscalation().logonResetTried = false;
    SetConfigString("ParentAddress", "127.0.0.1");
    ServeIor(ParentTests::IorOf("192.0.2.1"));
    SetConfigInt("LogonRetryInterval", 1);
    // Only a test that says so sees a heartbeat.
    SetConfigInt("HeartbeatInterval", 60 * 24);
    parent_.notify = AReferenceTo<BrelixMessaging::NotifyConsumer>("parent-notify");
    parent_.supplier = AReferenceTo<BrelixMessaging::RouterSupplier>("parent-supplier");
    table_.ReadTable(true);
    log_.Clear();
  }

  void ServeIor(const std::string& ior) {
    port_.Stop();
    port_.SetPort(0);
    port_.SetIOR(ior);
    port_.Start();
    Eventually([this] { return port_.ListeningPort() != 0; });
    SetConfigInt("ParentPort", port_.ListeningPort());
  }
  void Begin(ParentLogon& logon) {
    host_.logon = &logon;
    logon.Start();
    logon.Enable();
  }
  bool LogsOn(std::size_t times = 1) {
    return Eventually([&] { return log_.Count("Logged on to parent router as") == times; });
  }
  // Every registration fails.
  void RefuseRegistration() {
    parent_.SetOnCall([](const std::string& operation) {
      if (operation == "Register") throw BrelixMessaging::Rejected();
    });
  }
  void RefuseLogon() {
    parent_.SetOnCall([](const std::string& operation) {
      if (operation == "Logon") throw BrelixMessaging::NotRegistered();
    });
  }
  // A parent that is pushed to, and so has a consumer for the heartbeat.
  void LetItBePushedTo(BrelixMessaging::RouterConsumer_ptr consumer) {
    parent_.consumer = BrelixMessaging::RouterConsumer::_duplicate(consumer);
    parent_.notify = BrelixMessaging::NotifyConsumer::_nil();
  }

  TestSupport::ScratchConfiguration configuration_;
  TestSupport::LogCapture log_;
  TestSupport::FakeParent parent_;
  FakeHost host_;
  RouterTable table_;
  Routing routing_;
  FakeLogonHost router_;
  IOR_Sender port_;
};

constexpr std::chrono::milliseconds kShortSecond{1};
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
  EXPECT_TRUE(log_.Has(kLogInfo, "Received parent router's IOR:\n" +
                                     ParentTests::IorOf("192.0.2.1") + "\n"));
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
  const std::string complaint =
      "Cannot log on to the parent router, because its IOR is invalid\n";
  EXPECT_EQ(log_.Count(complaint), 11u);
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "Register parent retry failed after 10 attempts. Resetting router..."));
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

TEST_F(ParentLogonTest, ARetryIntervalOfZeroIsOneSecond) {
  SetConfigInt("LogonRetryInterval", 0);
  RefuseRegistration();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.reinitialised == 1; }));
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, WhatFailsUnexpectedlyIsTriedAgain) {
  host_.NoObjects();
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] {
    return log_.Count("ParentLogon::Process: Caught ServantHelper not initialized") >= 2;
  }));
  logon.StopLogon(false);
  EXPECT_EQ(router_.reinitialised, 0);
}

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
  }
  ~HeartbeatTest() override { adapter_->deactivate_object(id_); }

  PortableServer::POA_var adapter_;
  PortableServer::Servant_var<CountingConsumer> servant_;
  PortableServer::ObjectId_var id_;
};

TEST_F(HeartbeatTest, ComesAgainAndAgain) {
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return servant_->heartbeats == 2; }));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogInfo, "Calling parent with heartbeat..."));
  EXPECT_TRUE(log_.Has(kLogInfo, "Heartbeat to parent succeeded."));
  EXPECT_EQ(parent_.Calls("Logon"), 1u);
}

TEST_F(HeartbeatTest, DoesNotComeBeforeTheBasePeriodIsOver) {
  ParentLogon logon(routing_, router_, std::chrono::milliseconds(5));
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(Eventually([&] { return servant_->heartbeats == 1; }));
  // Sixty of these seconds; the logon was seen a little late.
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(250));
  logon.StopLogon(false);
}

TEST_F(HeartbeatTest, WithAnIntervalOfZeroItIsNeverSent) {
  SetConfigInt("HeartbeatInterval", 0);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(LogsOn());
  table_.Parent()->Logoff();
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_EQ(servant_->heartbeats, 0);
}

TEST_F(HeartbeatTest, AFailedOneLeadsToANewRegistration) {
  servant_->onHeartbeat = [] { throw BrelixMessaging::NotLoggedOn(); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent failed."));
  EXPECT_GE(parent_.Calls("Register"), 2u);
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(HeartbeatTest, WhereTheParentIsNotPushedToItFails) {
  parent_.consumer = BrelixMessaging::RouterConsumer::_nil();
  parent_.notify = AReferenceTo<BrelixMessaging::NotifyConsumer>("parent-notify");
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn(2));
  logon.StopLogon(false);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent failed."));
  EXPECT_EQ(servant_->heartbeats, 0);
  EXPECT_EQ(router_.ended, 0);
}

TEST_F(HeartbeatTest, OneThatTakesTooLongEndsTheProcess) {
  SetConfigInt("HeartbeatTimeout", 1);
  std::atomic<bool> answer{false};
  servant_->onHeartbeat = [&] { answer.wait(false); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(Eventually([&] { return router_.ended == 1; }));
  EXPECT_EQ(router_.exitStatus, 0);
  EXPECT_TRUE(log_.Has(kLogError, "Heartbeat to parent timed out, restarting router..."));
  answer = true;
  answer.notify_all();
  logon.StopLogon(false);
}

TEST_F(HeartbeatTest, ATimeoutOfZeroWaitsWithoutLimit) {
  SetConfigInt("HeartbeatTimeout", 0);
  std::atomic<bool> answer{false};
  servant_->onHeartbeat = [&] { answer.wait(false); };
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return servant_->heartbeats == 1; }));
  EXPECT_FALSE(log_.Contains("Heartbeat to parent succeeded."));
  answer = true;
  answer.notify_all();
  EXPECT_TRUE(Eventually([&] { return log_.Contains("Heartbeat to parent succeeded."); }));
  logon.StopLogon(false);
  EXPECT_EQ(router_.ended, 0);
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

TEST(GetParentIor, EmptyParentAddressGivesAnEmptyResult) {
  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  EXPECT_EQ(ParentLogon::GetParentIOR({}), "");
  EXPECT_FALSE(log.Contains("Getting parent router IOR"));
}

}  // namespace
}  // namespace MessageRouter
