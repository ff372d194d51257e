#include "parent/ParentLogon.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "parent/IOR_Sender.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::seconds kPatience{30};

template <class Condition>
bool Eventually(Condition&& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(ParentLogonThread, LogsNothingBeforeItIsEnabled) {
  TestSupport::LogCapture log;
  ParentLogon logon;
  logon.Start();
  logon.LinkLost();
  logon.StopLogon(true);
  EXPECT_FALSE(log.Contains("not available"));
}

TEST(ParentLogonThread, SaysOnceThatItIsNotAvailableAndWaitsForTheStop) {
  TestSupport::LogCapture log;
  ParentLogon logon;
  const std::string line =
      "Logging on to a parent is not available in this version: this router stays on its own\n";
  logon.Start();
  logon.Enable();
  EXPECT_TRUE(Eventually([&] { return log.Has(kLogWarning, line); }));
  logon.StopLogon(false);
  logon.Start();
  logon.StopLogon(true);
  EXPECT_EQ(log.Count(line), 1u);
}

TEST(ParentLogonThread, RequestedStopDoesNotWait) {
  ParentLogon logon;
  logon.Start();
  logon.RequestStopLogon(false);
  EXPECT_TRUE(logon.IsTerminated());
  logon.StopLogon(false);
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
