#pragma once

#include "parent/ParentLogon.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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

using TestSupport::AReferenceTo;
using Clock = std::chrono::steady_clock;
using std::chrono_literals::operator""ms;

inline constexpr std::chrono::seconds kPatience{60};

template <class Condition>
bool Eventually(Condition&& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Whether the condition stays false for so long.
template <class Condition>
bool Never(Condition&& condition, std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return false;
    std::this_thread::yield();
  }
  return true;
}

// Moments that the thread under test passes, noted where it does: whoever waits for it may look
// late.
class Moments {
 public:
  void Note() {
    const std::lock_guard<std::mutex> guard(mutex_);
    moments_.push_back(Clock::now());
  }
  std::size_t Count() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return moments_.size();
  }
  // From one to another, counted from 0.
  Clock::duration Between(std::size_t from, std::size_t to) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return moments_.at(to) - moments_.at(from);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Clock::time_point> moments_;
};

// Takes the place of the health report: notes what it is told, in words.
class ListeningReporter : public StatusReporting::StatusReporter {
 public:
  ListeningReporter() : StatusReporter(""), dns_(*this), outgoing_(*this) {}
  void WriteReport() override {
    Told("report");
    if (onReport) onReport();
  }
  void SetActualParent(const std::string& address) override { Told("parent " + address); }
  StatusReporting::DNSSection& Dns() override { return dns_; }
  StatusReporting::OutgoingSection& Outgoing() override { return outgoing_; }

  void Told(const std::string& what) {
    if (onTold) onTold(what);
    std::lock_guard<std::mutex> guard(mutex_);
    told_.push_back(what);
  }
  std::vector<std::string> All() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return told_;
  }
  // Runs in WriteReport: the last step of a logon.
  std::function<void()> onReport;
  // Runs before each word is noted.
  std::function<void(const std::string& what)> onTold;

 private:
  class DnsListener : public StatusReporting::DNSSection {
   public:
    explicit DnsListener(ListeningReporter& reporter) : reporter_(reporter) {}
    void addFailedAddress(const std::string& address) override {
      reporter_.Told("unresolved " + address);
    }
    void Update() override { reporter_.Told("names update"); }
    void Reset() override { reporter_.Told("names reset"); }

   private:
    ListeningReporter& reporter_;
  };
  class OutgoingListener : public StatusReporting::OutgoingSection {
   public:
    explicit OutgoingListener(ListeningReporter& reporter) : reporter_(reporter) {}
    void Raise(int record, const std::string& text) override {
      reporter_.Told("raise " + std::to_string(record) + " " + text);
    }
    void Clear(int record) override { reporter_.Told("clear " + std::to_string(record)); }

   private:
    ListeningReporter& reporter_;
  };

  mutable std::mutex mutex_;
  std::vector<std::string> told_;
  DnsListener dns_;
  OutgoingListener outgoing_;
};

// The rest of the router, as the parent logon sees it.
class FakeLogonHost : public ParentLogonHost {
 public:
  StatusReporting::StatusReporter& Status() override { return status; }
  void SetParentAddresses(const std::string& ior) override { parentAddresses = ior; }
  void Reinitialize() override { ++reinitialised; }
  void EndProcess(int status) override {
    exitStatus = status;
    ++ended;
  }

  ListeningReporter status;
  std::string parentAddresses;
  std::atomic<int> reinitialised{0};
  std::atomic<int> ended{0};
  std::atomic<int> exitStatus{-1};
};

// A routing host whose references all lead to the parent.
class FakeHost : public TestSupport::FakeRoutingHost {
 public:
  explicit FakeHost(TestSupport::FakeParent& parent) : parent_(parent) {}
  CORBA::Object_ptr StringToObject(const std::string&) override {
    if (onStringToObject) onStringToObject();
    if (nothingThere) return CORBA::Object::_nil();
    if (!CORBA::is_nil(root)) return CORBA::Object::_duplicate(root);
    return CORBA::Object::_duplicate(parent_.Root());
  }
  LocalObjects& Objects() override {
    if (onObjects) onObjects();
    return FakeRoutingHost::Objects();
  }
  void NotifiedPoll(RouterTableEntry& entry) override {
    if (onNotifiedPoll) onNotifiedPoll();
    FakeRoutingHost::NotifiedPoll(entry);
  }
  void ParentLinkLost() override {
    FakeRoutingHost::ParentLinkLost();
    if (logon != nullptr) logon->LinkLost();
  }
  ParentLogon* logon = nullptr;
  std::atomic<bool> nothingThere{false};
  CORBA::Object_var root;  // in place of the parent's
  // Run in the calls, before their effect.
  std::function<void()> onStringToObject;
  std::function<void()> onObjects;
  std::function<void()> onNotifiedPoll;

 private:
  TestSupport::FakeParent& parent_;
};

// What a second of the parent logon takes.
inline constexpr std::chrono::milliseconds kShortSecond{1};

// A router named "router1" with a parent named "boss", whose IOR port is open.
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
    // A reset is waited for long enough, even in these seconds.
    SetConfigInt("ResetTimeout", 3600 * 1000);
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
  // From now on every key has its default, apart from those that lead to the parent.
  void ConfigureNothing() {
    const std::uint32_t port = GetConfigInt("ParentPort", 0);
    unset_.emplace();
    SetConfigString("ParentAddress", "127.0.0.1");
    SetConfigInt("ParentPort", port);
  }
  void Begin(ParentLogon& logon) {
    host_.logon = &logon;
    logon.Start();
    logon.Enable();
  }
  // Until it is logged on and done with the logon: a link that is lost from then on is validated.
  void BeginAndSettle(ParentLogon& logon) {
    std::atomic<bool>& resetTried = ParentLogon::TheEscalation().logonResetTried;
    resetTried = true;
    Begin(logon);
    EXPECT_TRUE(LogsOn());
    EXPECT_TRUE(Eventually([&] { return !resetTried; }));
  }
  // One life of the thread: until then, and with a leave only if the stop asks for one.
  template <class Condition>
  void RunUntil(Condition&& condition, bool logoff = false) {
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    EXPECT_TRUE(Eventually(condition));
    logon.StopLogon(logoff);
    host_.logon = nullptr;
  }
  bool LogsOn(std::size_t times = 1) {
    return Eventually([&] { return log_.Count("Logged on to parent router as") >= times; });
  }
  // Every registration fails; each is noted.
  void RefuseRegistration() {
    parent_.SetOnCall([this](const std::string& operation) {
      if (operation != "Register") return;
      moments_.Note();
      throw BrelixMessaging::Rejected();
    });
  }
  // The same for the logon.
  void RefuseLogon() {
    parent_.SetOnCall([this](const std::string& operation) {
      if (operation != "Logon") return;
      moments_.Note();
      throw BrelixMessaging::NotRegistered();
    });
  }
  // A parent that is pushed to, and so has a consumer for the heartbeat.
  void LetItBePushedTo(BrelixMessaging::RouterConsumer_ptr consumer) {
    parent_.consumer = BrelixMessaging::RouterConsumer::_duplicate(consumer);
    parent_.notify = BrelixMessaging::NotifyConsumer::_nil();
  }

  TestSupport::ScratchConfiguration configuration_;
  std::optional<TestSupport::ScratchConfiguration> unset_;
  TestSupport::LogCapture log_;
  Moments moments_;
  TestSupport::FakeParent parent_;
  FakeHost host_;
  RouterTable table_;
  Routing routing_;
  FakeLogonHost router_;
  IOR_Sender port_;
};

}  // namespace MessageRouter
