#include "core/Router.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "broker/CorbaExceptions.h"
#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "core/TearDownWatchdog.h"
#include "logging/Log.h"
#include "lone_router.h"
#include "platform/Network.h"
#include "servants/NotifyConsumer_i.h"
#include "status/StatusReporter.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"
#include "support/TestCertificates.h"

namespace MessageRouter {
namespace {

std::vector<std::uint32_t> OnlyLoopback() {
  return {0x7F000001};
}

TEST_F(LoneRouter, OnAHostWithOnlyALoopbackAddressFailsAfterElevenReadingsOfFiveSeconds) {
  Platform::SetHostAddressSource(&OnlyLoopback);
  std::vector<unsigned> slept;
  Router::Surroundings surroundings;
  surroundings.sleep = [&slept](unsigned milliseconds) { slept.push_back(milliseconds); };
  Router::instance().SetSurroundings(surroundings);

  EXPECT_EQ(RunRouter(), 1);

  EXPECT_EQ(slept, std::vector<unsigned>(11, 5000));
  const std::string log = LogText();
  EXPECT_EQ(Count(log, "Failed to obtain valid host configuration, sleeping"), 11u);
  EXPECT_EQ(Count(log, "No valid host configuration could be obtained"), 1u);
  EXPECT_EQ(Count(log, "Router::Start() caught unknown exception"), 1u);
}

TEST_F(LoneRouter, TheTwelfthReadingEndsTheStartEvenIfItFindsAddresses) {
  Platform::SetHostAddressSource(&OnlyLoopback);
  unsigned sleeps = 0;
  Router::Surroundings surroundings;
  surroundings.sleep = [&sleeps](unsigned) {
    if (++sleeps == 11) {
      Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
    }
  };
  Router::instance().SetSurroundings(surroundings);
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_EQ(Count(LogText(), "No valid host configuration could be obtained"), 1u);
}

TEST_F(LoneRouter, AStopDuringTheWaitForAHostAddressEndsWithZero) {
  Platform::SetHostAddressSource(&OnlyLoopback);
  Router::Surroundings surroundings;
  unsigned sleeps = 0;
  surroundings.sleep = [&sleeps](unsigned) {
    ++sleeps;
    Router::instance().Shutdown();
  };
  Router::instance().SetSurroundings(surroundings);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(sleeps, 1u);
}

TEST_F(LoneRouter, AnErrorWhileReadingTheAddressesIsLoggedAndCountsAsNone) {
  Platform::SetHostAddressSource(
      []() -> std::vector<std::uint32_t> { throw std::logic_error("refused"); });
  Router::Surroundings surroundings;
  surroundings.sleep = [](unsigned) { Router::instance().Shutdown(); };
  Router::instance().SetSurroundings(surroundings);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(Count(LogText(), "Failed to get initial IP addresses: refused\n"), 1u);
}

TEST_F(LoneRouter, WithoutACertificateInItsStoreFailsToStart) {
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_EQ(Count(LogText(), "Router::Start: Caught No certificate in certificate store"), 1u);
}

TEST_F(LoneRouter, ThatFailsToStartLeavesTheTableFileAsItIs) {
  const std::filesystem::path table = configuration_.RouterFolder() / "table_router.txt";
  std::ofstream(table) << "agent-1.0..\n";
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_EQ(TestSupport::TextOf(table), "agent-1.0..\n");
}

TEST_F(LoneRouter, KeepsAsManyLogFilesOfThatSizeAsIsConfigured) {
  SetConfigInt("LogFileMaxSize", 1024);
  SetConfigInt("LogFileCount", 3);
  TestSupport::FakeClock clock;
  Platform::SetHostAddressSource(&OnlyLoopback);
  Router::Surroundings surroundings;
  // A name for each file that is begun, in the second of its own.
  surroundings.sleep = [&clock](unsigned) {
    clock.Advance(std::chrono::seconds(1));
    LogInfo("%s\n", std::string(600, 'x').c_str());
  };
  Router::instance().SetSurroundings(surroundings);
  EXPECT_EQ(RunRouter(), 1);
  CloseLog();
  const std::filesystem::directory_iterator files(configuration_.RouterFolder() / "Logs");
  EXPECT_EQ(std::distance(begin(files), end(files)), 3);
  for (const auto& file :
       std::filesystem::directory_iterator(configuration_.RouterFolder() / "Logs")) {
    EXPECT_LT(file.file_size(), 2048u);
  }
}

class ConfiguredLogLevel
    : public LoneRouter,
      public testing::WithParamInterface<std::tuple<std::uint32_t, bool, bool>> {};

TEST_P(ConfiguredLogLevel, DecidesOnDebugAndTrace) {
  const auto [level, debug, trace] = GetParam();
  SetConfigInt("LogLevel", level);
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
  EXPECT_EQ(RunRouter(), 1);
  const std::string log = LogText();
  EXPECT_EQ(Count(log, " I Initializing CORBA...\n"), 1u);
  EXPECT_EQ(Count(log, " D Creating ORB...\n"), debug ? 1u : 0u);
  EXPECT_EQ(Count(log, " T IPAddressSet::InitialiseWithHost() called\n"), trace ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, ConfiguredLogLevel,
                         testing::Values(std::tuple(0u, false, false), std::tuple(1u, true, false),
                                         std::tuple(2u, true, true), std::tuple(3u, true, true)));

// Counts what it is told.
class ThresholdListener : public StatusReporting::StatusReporter {
 public:
  explicit ThresholdListener(unsigned& calls) : StatusReporter("unused"), incoming_(calls) {}
  StatusReporting::IncomingSection& Incoming() override { return incoming_; }

 private:
  struct Section : StatusReporting::IncomingSection {
    explicit Section(unsigned& calls) : calls_(calls) {}
    void ThresholdCall() override { ++calls_; }
    unsigned& calls_;
  };

  Section incoming_;
};

TEST_F(LoneRouter, OnceStartedTellsItsStatusReporterOfThresholdCalls) {
  unsigned calls = 0;
  const PortableServer::Servant_var<RouterServants::NotifyConsumer_i> servant(
      new RouterServants::NotifyConsumer_i);
  EXPECT_EQ(RunRouter(), 1);  // for want of a certificate, after the reporter was installed
  Router::instance().SetStatusReporter(std::make_unique<ThresholdListener>(calls));
  servant->NotificationThreshold();
  EXPECT_EQ(calls, 1u);
  DestroyRouter();
  servant->NotificationThreshold();
  EXPECT_EQ(calls, 1u);
}

TEST_F(LoneRouter, WithProcessorAffinity32LogsTheWarningAndGoesOn) {
  SetConfigInt("ProcessorAffinity", 32);
  EXPECT_EQ(RunRouter(), 1);  // for want of a certificate, much later
  EXPECT_EQ(Count(LogText(), "Ignoring CPU affinity since CPU 32 was requested"), 1u);
  EXPECT_EQ(Count(LogText(), "Router::Start: Caught No certificate in certificate store"), 1u);
}

TEST_F(LoneRouter, WithoutACaCertificateDoesNotStart) {
  std::filesystem::remove(configuration_.RouterFolder() / "Private" / "ca.pem");
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_EQ(Count(LogText(), "Router::Start: Caught No CA certificate in certificate store"), 1u);
}

TEST_F(LoneRouter, AShutdownDuringAReinitializeWins) {
  Router& router = Router::instance();
  router.Shutdown();
  router.Reinitialize();
  EXPECT_EQ(router.GetState(), Router::kStopping);
  EXPECT_TRUE(router.IsStopping());
}

TEST(NullConfiguration, IsRefused) {
  char name[] = "router";
  char* argv[] = {name, nullptr};
  try {
    InitializeRouter(nullptr, "x", "Router", 1, argv);
    FAIL() << "nothing thrown";
  } catch (const std::invalid_argument& exception) {
    EXPECT_STREQ(exception.what(),
                 "Null configuration object passed to the initialization routine.");
  }
}

class ThreadThatThrowsCorba : public ThreadHelper::StoppableThreadHelper {
 public:
  ~ThreadThatThrowsCorba() override { Stop(); }
  void Process() override { throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO); }
};

TEST(CorbaExceptionOutOfAThreadDeathTest, IsLoggedAndEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ThreadHelper::SetUnknownExceptionReporter(&ReportIfCorbaException);
        ThreadThatThrowsCorba thread;
        thread.Start();
        thread.Join();
      },
      testing::ExitedWithCode(255),
      "BasicThreadHelper: Caught CORBA .*TRANSIENT|derived from .*Caught CORBA");
}

TEST(TearDownWatchdogDeathTest, EndsTheProcessWithZeroWhenTheTimeIsUp) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        TearDownWatchdog watchdog(1);
        watchdog.Start();
        watchdog.Join();
      },
      testing::ExitedWithCode(0), "Resetting router failed to finish after 1 seconds");
}

TEST(TearDownWatchdogTest, DoesNothingWhenStoppedInTime) {
  TearDownWatchdog watchdog(600);
  watchdog.Start();
  watchdog.Stop();
}

}  // namespace
}  // namespace MessageRouter
