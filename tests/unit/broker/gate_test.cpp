#include "broker/Gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using Broker::Gate;

// How many of eight operations were inside at once, when each stays until `together` are inside or
// a moment has passed.
unsigned MostInsideAtOnce(unsigned width) {
  Gate::SetWidth(width);
  std::atomic<unsigned> inside{0};
  std::atomic<unsigned> most{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const Gate::Pass pass;
      const unsigned now = ++inside;
      unsigned seen = most;
      while (seen < now && !most.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      --inside;
    });
  }
  for (std::thread& thread : threads) thread.join();
  return most;
}

TEST(Gate, LetsNoMoreInThanItsWidth) {
  EXPECT_EQ(MostInsideAtOnce(1), 1u);
  EXPECT_LE(MostInsideAtOnce(4), 4u);
}

TEST(Gate, WidthZeroCountsAsOne) {
  EXPECT_EQ(MostInsideAtOnce(0), 1u);
}

TEST(Gate, LeaveLetsAnotherInAndComesBack) {
  Gate::SetWidth(1);
  const Gate::Pass pass;
  {
    const Gate::Leave leave;
    std::async(std::launch::async, [] { const Gate::Pass other; }).get();
  }
  // The place is held again: another one waits.
  auto other = std::async(std::launch::async, [] { const Gate::Pass blocked; });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  const Gate::Leave leave;
  other.get();
}

TEST(Gate, OperationWithinAnOperationOfTheSameThreadTakesNoSecondPlace) {
  Gate::SetWidth(1);
  const Gate::Pass outer;
  const Gate::Pass inner;
}

TEST(Gate, LeaveOutsideOfAnOperationDoesNothing) {
  Gate::SetWidth(1);
  { const Gate::Leave leave; }
  const Gate::Pass pass;
  auto other = std::async(std::launch::async, [] { const Gate::Pass blocked; });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  const Gate::Leave leave;
  other.get();
}

TEST(Gate, WiderGateLetsTheWaitingIn) {
  Gate::SetWidth(1);
  const Gate::Pass pass;
  auto other = std::async(std::launch::async, [] { const Gate::Pass waiting; });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  Gate::SetWidth(2);
  other.get();
}

}  // namespace
