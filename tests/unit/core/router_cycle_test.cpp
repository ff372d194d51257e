// Whole cycles of a router with a certificate, on a host that the test plays.
#include "core/RouterCycle.h"

#include <pthread.h>

#include <chrono>
#include <functional>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>

#include "config/DataLocation.h"
#include "cycle_fixture.h"
#include "parent/Connector.h"
#include "platform/Clock.h"
#include "support/EnvelopeBuilder.h"

namespace MessageRouter {
namespace {

// While it lives no thread can be made: the system has no room for such a stack.
class NoRoomForThreads {
 public:
  NoRoomForThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 46);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
  ~NoRoomForThreads() {
    pthread_setattr_default_np(&before_);
    pthread_attr_destroy(&before_);
  }
  NoRoomForThreads(const NoRoomForThreads&) = delete;
  NoRoomForThreads& operator=(const NoRoomForThreads&) = delete;

 private:
  pthread_attr_t before_;
};

TEST_F(CycleTest, AStopTakesTheCycleDownAndEndsWithZero) {
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(TakenDownAfter("Waiting for messages...\n", ""));
  EXPECT_EQ(Cycle::Current(), nullptr);
}

TEST_F(CycleTest, AThreadThatCannotBeMadeEndsTheStartAfterTheTearDown) {
  std::unique_ptr<NoRoomForThreads> shortage;
  whileThreadsAreMissing = [&](int) { shortage = std::make_unique<NoRoomForThreads>(); };
  const int result = RunRouter();
  shortage.reset();
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(TakenDownAfter("Router::doStartRouting() called\n",
                             "Router::Start: Caught BasicThreadHelper failed to start thread"));
  EXPECT_EQ(Count(LogText(), "Waiting for messages...\n"), 0u);
  EXPECT_EQ(Cycle::Current(), nullptr);
}

TEST_F(CycleTest, AFailureBetweenActivationAndTheThreadsEndsTheStartAfterTheTearDown) {
  whileThreadsAreMissing = [](int) { throw "no C++ exception class"; };
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_TRUE(TakenDownAfter("Activating CORBA objects...\n",
                             "Router::Start() caught unknown exception\n"));
  EXPECT_EQ(Count(LogText(), "Router::doStartRouting() called\n"), 0u);
  EXPECT_EQ(Cycle::Current(), nullptr);
}

TEST_F(CycleTest, TheMapIsOpenAsSoonAsRequestsComeIn) {
  SetConfigBool("LogicalRouting", true);
  bool open = false;
  whileThreadsAreMissing = [&](int) {
    const Logical* const map = Cycle::Current()->Map();
    open = map != nullptr && !map->IsClosed();
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(open);
}

TEST_F(CycleTest, AMapThatCannotBeOpenedIsAnErrorAndTheRouterStarts) {
  SetConfigBool("LogicalRouting", true);
  std::filesystem::create_directory(configuration_.RouterFolder() / "LogicalTable.pag");
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(LoggedInOrder(
      {"E Failed to open logical routing database\n", "T Router::doStartRouting() called\n",
       "E Failed to open logical routing table\n", "I Waiting for messages...\n"}));
}

TEST_F(CycleTest, AFailureInATickEndsTheStartAfterTheTearDown) {
  whileRunning = [](int) { throw std::runtime_error("the tick failed"); };
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_TRUE(TakenDownAfter("Waiting for messages...\n", "Router::Start: Caught the tick failed"));
  EXPECT_EQ(Cycle::Current(), nullptr);
}

TEST_F(CycleTest, AFailureAfterAStopWasAskedForStillEndsWithZero) {
  whileRunning = [](int) {
    Router::instance().Shutdown();
    throw std::runtime_error("the tick failed");
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(TakenDownAfter("Waiting for messages...\n", "Router::Start: Caught the tick failed"));
}

TEST_F(CycleTest, ASystemExceptionOfTheTransportSaysWhatMayBeWrong) {
  whileRunning = [](int) { throw CORBA::INITIALIZE(0x54410681, CORBA::COMPLETED_NO); };
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_TRUE(TakenDownAfter(
      "Waiting for messages...\n",
      "This machine may have more IP addresses than are supported or the port may already be in "
      "use.\n"));
  EXPECT_TRUE(LoggedInOrder({"Destroying ORB...\n", "Router::Start: Caught CORBA"}));
}

TEST_F(CycleTest, AnyOtherSystemExceptionDoesNot) {
  whileRunning = [](int) { throw CORBA::INTERNAL(1, CORBA::COMPLETED_NO); };
  EXPECT_EQ(RunRouter(), 1);
  EXPECT_TRUE(TakenDownAfter("Waiting for messages...\n", "Router::Start: Caught CORBA"));
  EXPECT_EQ(Count(LogText(), "This machine may have more IP addresses"), 0u);
}

// Requests reach the router before its threads run. What they offer is looked at here in the second
// cycle, after the threads of the first have been stopped.
class EarlyRequestTest : public CycleTest {
 protected:
  EarlyRequestTest() {
    while (called.try_acquire()) {  // what earlier tests did not wait for
    }
    SetConfigInt("NumNotificationThresholdThreads", 1);
    whileThreadsAreMissing = [this](int cycle) {
      if (cycle == 2) request(*Cycle::Current());
    };
    whileRunning = [](int cycle) {
      if (cycle == 1) {
        Router::instance().Reinitialize();
        return;
      }
      EXPECT_TRUE(Called());
      Router::instance().Shutdown();
    };
  }
  std::function<void(Routing&)> request;
};

TEST_F(EarlyRequestTest, ARouterThatLogsOnToBePolledIsPolled) {
  request = [](Routing& routing) {
    const BrelixMessaging::RouterSupplier_var supplier =
        APeer<Supplier, BrelixMessaging::RouterSupplier>();
    routing.RegisterPeer("child", true);
    routing.LogonRouterPeer("child", BrelixMessaging::RouterConsumer::_nil(), supplier,
                            BrelixMessaging::NotifyConsumer::_nil(), 0);
    EXPECT_EQ(routing.Table().Find("child")->GetSupplierState(), RouterTableEntry::kPollNotified);
  };
  EXPECT_EQ(RunRouter(), 0);
}

TEST_F(EarlyRequestTest, APeerThatLogsOnWithANotifierGetsItsThresholdCallAndNoWarning) {
  request = [](Routing& routing) {
    const BrelixMessaging::NotifyConsumer_var notify =
        APeer<Notified, BrelixMessaging::NotifyConsumer>();
    routing.RegisterPeer("agent", false);
    routing.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(), notify, 0);
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(Count(LogText(), "Initialising router with 1 notification threshold worker threads\n"),
            2u);
  EXPECT_EQ(Count(LogText(), "Notification threshold calls will not be attempted"), 0u);
}

TEST_F(EarlyRequestTest, APeerThatLogsOnWithEnvelopesWaitingGetsThem) {
  request = [](Routing& routing) {
    const BrelixMessaging::EnvelopeConsumer_var consumer =
        APeer<Consumer, BrelixMessaging::EnvelopeConsumer>();
    routing.RegisterPeer("agent", false);
    // Not by way of the route queue: that would bring a second offer.
    EXPECT_TRUE(routing.Table().Find("agent")->Enqueue(TestSupport::AnEnvelope(), "agent"));
    routing.LogonClientPeer("agent", consumer, BrelixMessaging::NotifyConsumer::_nil(), 0);
  };
  EXPECT_EQ(RunRouter(), 0);
}

// Answers no threshold call before it is told to.
std::counting_semaphore<> mayAnswer(0);
class Hanging : public POA_BrelixMessaging::NotifyConsumer {
 public:
  void Notify() override {}
  CORBA::Long NotificationThreshold() override {
    called.release();
    mayAnswer.acquire();
    return 0;
  }
};

TEST_F(EarlyRequestTest, AStopWritesTheRegistrationsOfTheLastMinuteBeforeItWaitsForAHangingCall) {
  std::thread answering;
  std::string written;
  whileRunning = [&](int) {
    const BrelixMessaging::NotifyConsumer_var notify =
        APeer<Hanging, BrelixMessaging::NotifyConsumer>();
    Routing& routing = *Cycle::Current();
    routing.RegisterPeer("agent", false);
    routing.LogonClientPeer("agent", BrelixMessaging::EnvelopeConsumer::_nil(), notify, 0);
    EXPECT_TRUE(Called());
    EXPECT_FALSE(std::filesystem::exists(RouterTablePath("Router")));
    answering = std::thread([&] {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (written.empty() && std::chrono::steady_clock::now() < deadline) {
        written = TestSupport::TextOf(RouterTablePath("Router"));
        std::this_thread::yield();
      }
      mayAnswer.release();
    });
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
  answering.join();
  EXPECT_EQ(written, "agent.0..\n");
}

using FolderOf = std::string (*)(const std::string& routerName);

class SecondOfTheStart : public CycleTest, public testing::WithParamInterface<FolderOf> {};

TEST_P(SecondOfTheStart, IsNoneInWhichAnotherProcessWroteThere) {
  const std::string folder = GetParam()("Router");
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "made") << "by the other";
  const std::int64_t last = Platform::Clock::Instance().WallSeconds();
  std::int64_t first = 0;
  whileThreadsAreMissing = [&](int) { first = Platform::Clock::Instance().WallSeconds(); };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_GT(first, last);
}

INSTANTIATE_TEST_SUITE_P(Folders, SecondOfTheStart,
                         testing::Values(&EnvelopeDirectory, &LogDirectory), [](const auto& row) {
                           return std::string(row.index == 0 ? "Envelopes" : "Logs");
                         });

TEST_F(CycleTest, RegistrationsThatTheStopCouldNotWriteAreKnownInTheNextCycleAndWrittenThen) {
  bool known = false;
  whileRunning = [&](int cycle) {
    Routing& routing = *Cycle::Current();
    if (cycle == 1) {
      routing.RegisterPeer("agent", false);
      std::filesystem::create_directory(RouterTablePath("Router"));
      return Router::instance().Reinitialize();
    }
    known = routing.Table().Find("agent") != nullptr;
    std::filesystem::remove(RouterTablePath("Router"));
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(LoggedInOrder({"W Trying again to write the router table file\n",
                             "W Trying again to write the router table file\n",
                             "Deactivating CORBA objects...\n"}));
  EXPECT_TRUE(known);
  EXPECT_EQ(TestSupport::TextOf(RouterTablePath("Router")), "agent.0..\n");
}

// Writes nothing for want of memory, except for the main thread.
class ShortStore : public EnvelopeStore {
 public:
  using EnvelopeStore::EnvelopeStore;
  int Write(const std::string& name, const std::string& content) override {
    if (std::this_thread::get_id() != main_) throw std::bad_alloc();
    return EnvelopeStore::Write(name, content);
  }

 private:
  const std::thread::id main_ = std::this_thread::get_id();
};

TEST_F(CycleTest, WhatTheParentIsOwedIsToldAtTheStop) {
  ShortStore store((configuration_.Folder() / "Envelopes").string());
  EnvelopeStore::Replace(&store);
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", 1);
  whileRunning = [](int) {
    Routing& routing = *Cycle::Current();
    routing.Table().Register("child", true);
    std::thread([&] { routing.UnregisterPeer("child", true); }).join();
    Router::instance().Shutdown();
  };
  EXPECT_EQ(RunRouter(), 0);
  std::vector<Envelope> told;
  LoadPersistentEnvelopes(told);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].Type(), "MS-RouterUnregistered");
}

TEST_F(CycleTest, WithoutThresholdThreadsAnOfferIsAWarning) {
  whileThreadsAreMissing = [](int) {
    RouterTable& table = Cycle::Current()->Table();
    table.Register("agent", false);
    Router::instance().OfferToThreshold(*table.Find("agent"));
  };
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(LoggedInOrder(
      {"W Notification threshold calls will not be attempted, because the number of notification "
       "threshold threads is 0\n",
       "D Initialising router with 0 notification threshold worker threads\n"}));
}

// Puts the process's settings back.
class ConnectRetryTest : public CycleTest {
 protected:
  ~ConnectRetryTest() override {
    const ConnectRetrySettings defaults;
    ConnectRetry().totalSeconds = defaults.totalSeconds.load();
    ConnectRetry().retries = defaults.retries.load();
    ConnectRetry().pauseMilliseconds = defaults.pauseMilliseconds.load();
    ConnectRetry().pauseRangePercent = defaults.pauseRangePercent.load();
  }
};

TEST_F(ConnectRetryTest, SettingsOfTheConfigurationCountAndAreLogged) {
  SetConfigInt("TotalConnectRetryTimeSecs", 7);
  SetConfigInt("ConnectRetries", 3);
  SetConfigInt("ConnectRetriesPause", 20);
  SetConfigInt("ConnectRetriesPauseRange", 50);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(ConnectRetry().totalSeconds, 7u);
  EXPECT_EQ(ConnectRetry().retries, 3u);
  EXPECT_EQ(ConnectRetry().pauseMilliseconds, 20u);
  EXPECT_EQ(ConnectRetry().pauseRangePercent, 50u);
  EXPECT_TRUE(LoggedInOrder({"T Router::doStartRouting() called\n",
                             "T Total time for retrying ACE socket connection 7\n",
                             "T Number of retries when retrying ACE socket connection 3\n",
                             "T Pause between retries when retrying ACE socket connection 20\n",
                             "T Pause variation percentage range 50\n"}));
}

TEST_F(ConnectRetryTest, AZeroKeepsTheSettingAndItsValueIsLogged) {
  ConnectRetry().totalSeconds = 11;
  ConnectRetry().pauseMilliseconds = 12;
  ConnectRetry().pauseRangePercent = 13;
  ConnectRetry().retries = 14;
  SetConfigInt("ConnectRetries", 0);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(LoggedInOrder({"T Total time for retrying ACE socket connection 11\n",
                             "T Number of retries when retrying ACE socket connection 14\n",
                             "T Pause between retries when retrying ACE socket connection 12\n",
                             "T Pause variation percentage range 13\n"}));
}

TEST_F(ConnectRetryTest, WithoutAConfigurationThereAreAHundredRetries) {
  ConnectRetry().retries = 14;
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_TRUE(LoggedInOrder({"T Number of retries when retrying ACE socket connection 100\n"}));
}

TEST_F(CycleTest, AGetterTickOfZeroIsReplacedByTenWithAWarning) {
  SetConfigInt("GetterTickSecs", 0);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(Count(LogText(), "W GetterTickSecs is zero, using value of 10 second/s\n"), 1u);
}

TEST_F(CycleTest, AGetterTickOfOneIsTakenAsItIs) {
  SetConfigInt("GetterTickSecs", 1);
  EXPECT_EQ(RunRouter(), 0);
  EXPECT_EQ(Count(LogText(), "GetterTickSecs is zero"), 0u);
}

}  // namespace
}  // namespace MessageRouter
