// What a running cycle knows of the configuration, and whom it tells of its polls.
#include <memory>
#include <thread>
#include <utility>

#include "config/Configuration.h"
#include "cycle_fixture.h"
#include "status/StatusReporter.h"

namespace MessageRouter {
namespace {

// The first cycle runs with the defaults, the second with what was set during the first.
class ReloadTest : public CycleTest {
 protected:
  void RunTwice() {
    whileRunning = [this](int cycle) {
      if (cycle == 1) {
        change();
        first = Router::instance().GetThresholds();
        Router::instance().Reinitialize();
        return;
      }
      second = Router::instance().GetThresholds();
      Router::instance().Shutdown();
    };
    EXPECT_EQ(RunRouter(), 0);
  }

  std::function<void()> change;
  Thresholds first;
  Thresholds second;
};

struct ThresholdKey {
  const char* name;
  std::uint32_t Thresholds::*value;
};

class ReloadOfAThreshold : public ReloadTest, public testing::WithParamInterface<ThresholdKey> {};

TEST_P(ReloadOfAThreshold, CountsAfterTheReinitialisationAndNotBefore) {
  const ThresholdKey& key = GetParam();
  change = [&key] { SetConfigInt(key.name, 77); };
  RunTwice();
  EXPECT_EQ(first.*key.value, Thresholds().*key.value);
  EXPECT_EQ(second.*key.value, 77u);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ReloadOfAThreshold,
    testing::Values(ThresholdKey{"GetterInterval", &Thresholds::getterInterval},
                    ThresholdKey{"GetterShortInterval", &Thresholds::getterShortInterval},
                    ThresholdKey{"ActiveConsumerConnectionTimeout",
                                 &Thresholds::activeConsumerConnectionTimeout},
                    ThresholdKey{"NotificationThresholdInitialRetrySecs",
                                 &Thresholds::notificationThresholdInitialRetrySecs},
                    ThresholdKey{"NotificationThresholdMaxRetrySecs",
                                 &Thresholds::notificationThresholdMaxRetrySecs}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ReloadTest, RandomizeGetterIntervalCountsAfterTheReinitialisationAndNotBefore) {
  change = [] { SetConfigBool("RandomizeGetterInterval", false); };
  RunTwice();
  EXPECT_TRUE(first.randomizeGetterInterval);
  EXPECT_FALSE(second.randomizeGetterInterval);
}

// A changed period shows in a second scan of the same cycle.
class ReloadOfAPeriod : public CycleTest,
                        public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(ReloadOfAPeriod, CountsFromTheNextCycleOn) {
  const auto& [key, thread] = GetParam();
  const std::string scan = std::string(thread) + "::Process() checking table\n";
  SetConfigInt("NumNotificationThresholdThreads", 1);
  SetConfigInt(key, 3600);
  whileRunning = [&, name = key](int cycle) {
    if (cycle == 1) {
      SetConfigInt(name, 1);
      Router::instance().Reinitialize();
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Count(LogText(), scan) < 3 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_GE(Count(LogText(), scan), 3u);
}

INSTANTIATE_TEST_SUITE_P(Keys, ReloadOfAPeriod,
                         testing::Values(std::pair("TimeoutInterval", "TimeoutThread"),
                                         std::pair("GetterTickSecs", "GetterThread"),
                                         std::pair("NotificationThresholdThreadIntervalSecs",
                                                   "NotificationThresholdThread")),
                         [](const auto& row) { return std::string(row.param.first); });

// Keeps how polls went.
class PollListener : public StatusReporting::StatusReporter {
 public:
  PollListener() : StatusReporter("unused") {}
  StatusReporting::IncomingSection& Incoming() override { return incoming_; }

  struct Section : StatusReporting::IncomingSection {
    void Update(bool notified, bool got) override {
      last = {notified, got};
      heard.release();
    }
    std::pair<bool, bool> last;
    std::binary_semaphore heard{0};
  };
  Section& Polls() { return incoming_; }

 private:
  Section incoming_;
};

// Peers that are polled log on before the threads run: a scan that finds one logged on has it
// polled as due.
TEST_F(CycleTest, APeerThatIsOfferedToTheGettersIsPolled) {
  whileThreadsAreMissing = [&](int) {
    const BrelixMessaging::RouterSupplier_var supplier =
        APeer<Supplier, BrelixMessaging::RouterSupplier>();
    Routing& routing = *Cycle::Current();
    routing.RegisterPeer("child", true);
    RouterTableEntry& child = *routing.Table().Find("child");
    // Logged on past the routing, which would have it polled itself.
    child.LogonRouter("child", BrelixMessaging::RouterConsumer::_nil(), supplier,
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    EXPECT_TRUE(child.readyForNotifiedPoll());
    Router::instance().OfferToGetters(child);
  };
  whileRunning = [](int) {
    EXPECT_TRUE(Called());
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
}

TEST_F(CycleTest, ThereAreAsManyWorkersAsTheConfigurationSays) {
  SetConfigInt("NumSenderThreads", 4);
  SetConfigInt("NumGetterThreads", 5);
  SetConfigInt("NumNotificationThresholdThreads", 6);
  EXPECT_EQ(RunRouter(), 0);
  const std::string log = LogText();
  EXPECT_EQ(Count(log, "SenderWorker derived from BasicThreadHelper: starting"), 4u);
  EXPECT_EQ(Count(log, "GetterWorker derived from BasicThreadHelper: starting"), 5u);
  EXPECT_EQ(Count(log, "NotificationThresholdWorker derived from BasicThreadHelper: starting"), 6u);
}

TEST_F(CycleTest, TellsTheStatusReporterHowAPollWent) {
  auto reporter = std::make_unique<PollListener>();
  PollListener::Section& polls = reporter->Polls();
  whileThreadsAreMissing = [&](int) {
    // Nor does any that reports.
    Router::instance().SetStatusReporter(std::move(reporter));
    const BrelixMessaging::RouterSupplier_var supplier =
        APeer<Supplier, BrelixMessaging::RouterSupplier>();
    Routing& routing = *Cycle::Current();
    routing.RegisterPeer("child", true);
    routing.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(), supplier,
                            BrelixMessaging::NotifyConsumer::_nil(), 0);
  };
  whileRunning = [&](int) {
    EXPECT_TRUE(polls.heard.try_acquire_for(std::chrono::seconds(30)));
    EXPECT_EQ(polls.last, std::pair(true, false));
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
}

}  // namespace
}  // namespace MessageRouter
