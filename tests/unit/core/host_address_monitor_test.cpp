#include "core/HostIPAddressMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

// A host whose addresses a test tells. Each reading takes the next of the list; the last one stays.
struct PlayedHost {
  std::mutex mutex;
  std::condition_variable read;
  std::deque<int> readings;
  unsigned count = 0;

  int Next() {
    const std::lock_guard<std::mutex> guard(mutex);
    const int value = readings.front();
    if (readings.size() > 1) readings.pop_front();
    ++count;
    read.notify_all();
    return value;
  }
  void WaitForReadings(unsigned wanted) {
    std::unique_lock<std::mutex> guard(mutex);
    read.wait(guard, [&] { return count >= wanted; });
  }
};

PlayedHost* host = nullptr;

struct PlayedSet {
  int value = 0;
  bool operator==(const PlayedSet&) const = default;
};

void InitialiseWithHost(PlayedSet& set) {
  const int value = host->Next();
  if (value < 0) throw std::runtime_error("no adapters");
  set.value = value;
}

class HostMonitor : public testing::Test {
 protected:
  HostMonitor() { host = &played_; }
  ~HostMonitor() override { host = nullptr; }

  // Wakes every wait of the monitor until the host was read that often.
  void RunUntilReadings(HostIPAddressMonitor<PlayedSet>& monitor, unsigned readings) {
    monitor.Start();
    std::atomic<bool> done{false};
    std::thread waker([&] {
      while (!done) {
        monitor.Signal();
        std::this_thread::yield();
      }
    });
    played_.WaitForReadings(readings);
    done = true;
    waker.join();
    monitor.Stop();
  }

  TestSupport::LogCapture log_;
  PlayedHost played_;
  std::atomic<unsigned> changes_{0};
};

TEST_F(HostMonitor, AChangeThatIsGoneAfterTwentySecondsCausesNoRestart) {
  played_.readings = {2, 1};  // another address for a moment, then the old one again
  HostIPAddressMonitor<PlayedSet> monitor(
      PlayedSet{1}, [this] { ++changes_; }, 5);
  RunUntilReadings(monitor, 4);
  EXPECT_EQ(changes_, 0u);
  EXPECT_TRUE(log_.Contains("20 second sleep complete\n"));
  EXPECT_FALSE(log_.Contains("Host IP Addresses have changed"));
}

TEST_F(HostMonitor, AChangeThatLastsCallsBackOnce) {
  played_.readings = {2};
  HostIPAddressMonitor<PlayedSet> monitor(
      PlayedSet{1}, [this] { ++changes_; }, 5);
  RunUntilReadings(monitor, 5);
  EXPECT_EQ(changes_, 1u);
  EXPECT_TRUE(log_.Has(kLogInfo, "Host IP Addresses have changed\n"));
}

TEST_F(HostMonitor, AFailedReadingIsLoggedAndTheLoopGoesOn) {
  played_.readings = {-1, 1};
  HostIPAddressMonitor<PlayedSet> monitor(
      PlayedSet{1}, [this] { ++changes_; }, 5);
  RunUntilReadings(monitor, 3);
  EXPECT_TRUE(log_.Has(kLogWarning, "Failed to get current IP addresses: no adapters\n"));
  EXPECT_EQ(changes_, 0u);
}

}  // namespace
}  // namespace MessageRouter
