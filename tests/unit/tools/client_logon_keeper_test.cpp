#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "client_library/Failure.h"
#include "client_library/LogonKeeper.h"

using ClientLibrary::Failure;
using ClientLibrary::LogonKeeper;
using ClientLibrary::Outcome;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kInterval{1234};

// Fails as told, once for each entry; empty entries succeed.
class FakeLink : public LogonKeeper::Link {
 public:
  void Logon() override {
    ++logons;
    Fail(logonFailures);
  }
  void CheckLogon() override {
    ++checks;
    Fail(checkFailures);
  }

  std::deque<std::string> logonFailures;
  std::deque<std::string> checkFailures;
  int logons = 0;
  int checks = 0;

 private:
  static void Fail(std::deque<std::string>& failures) {
    if (failures.empty()) return;
    const std::string name = failures.front();
    failures.pop_front();
    if (!name.empty()) throw Failure(Outcome::Failed, "failed with " + name, name);
  }
};

class LogonKeeperTest : public testing::Test {
 protected:
  FakeLink link;
  std::vector<std::string> notices;
  LogonKeeper keeper{link, kInterval, [this](const std::string& text) { notices.push_back(text); }};
};

TEST_F(LogonKeeperTest, FirstStepLogsOn) {
  EXPECT_EQ(keeper.Step(), kInterval);
  EXPECT_TRUE(keeper.LoggedOn());
  EXPECT_EQ(link.logons, 1);
  EXPECT_EQ(link.checks, 0);
  EXPECT_TRUE(notices.empty());
}

TEST_F(LogonKeeperTest, FailureOfTheFirstLogonIsTheCallers) {
  link.logonFailures = {"TRANSIENT"};
  EXPECT_THROW(keeper.Step(), Failure);
  EXPECT_FALSE(keeper.LoggedOn());
}

TEST_F(LogonKeeperTest, LaterStepsOnlyCheckWhileAllIsWell) {
  keeper.Step();
  EXPECT_EQ(keeper.Step(), kInterval);
  EXPECT_EQ(keeper.Step(), kInterval);
  EXPECT_EQ(link.logons, 1);
  EXPECT_EQ(link.checks, 2);
}

TEST_F(LogonKeeperTest, ALostLogonIsRepeatedAtOnceAndBothAreTold) {
  keeper.Step();
  link.checkFailures = {"OBJECT_NOT_EXIST"};
  EXPECT_EQ(keeper.Step(), kInterval);
  EXPECT_TRUE(keeper.LoggedOn());
  EXPECT_EQ(link.logons, 2);
  ASSERT_EQ(notices.size(), 2U);
  EXPECT_EQ(notices[0], "failed with OBJECT_NOT_EXIST; logging on again");
  EXPECT_EQ(notices[1], "logged on again");
}

TEST_F(LogonKeeperTest, ARouterThatIsAwayIsTriedAgainAndAgainWithOneNotice) {
  keeper.Step();
  link.checkFailures = {"TRANSIENT"};
  link.logonFailures = {"TRANSIENT", "Rejected", "COMM_FAILURE"};
  EXPECT_EQ(keeper.Step(), LogonKeeper::kRetryPause);
  EXPECT_EQ(keeper.Step(), LogonKeeper::kRetryPause);
  EXPECT_EQ(keeper.Step(), LogonKeeper::kRetryPause);
  EXPECT_FALSE(keeper.LoggedOn());
  EXPECT_EQ(notices.size(), 1U);
  EXPECT_EQ(keeper.Step(), kInterval);
  EXPECT_TRUE(keeper.LoggedOn());
  EXPECT_EQ(notices.size(), 2U);
}

TEST_F(LogonKeeperTest, RefusalsThatWaitingDoesNotMendEndTheCommand) {
  for (const char* name : {"NotRegistered", "CertificateExpired"}) {
    FakeLink other;
    LogonKeeper fresh(other, kInterval, [](const std::string&) {});
    fresh.Step();
    other.checkFailures = {"OBJECT_NOT_EXIST"};
    other.logonFailures = {name};
    EXPECT_THROW(fresh.Step(), Failure) << name;
    EXPECT_FALSE(fresh.LoggedOn());
  }
}

}  // namespace
