#include "threads/Mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "support/FakeClock.h"
#include "threads/FailLocks.h"

namespace ThreadHelper {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(MutexGuard, HoldsTheLockWhileItLives) {
  Mutex mutex;
  std::atomic<bool> entered{false};
  std::thread other;
  {
    const Guard guard(mutex);
    ASSERT_TRUE(static_cast<bool>(guard));
    other = std::thread([&] {
      const Guard inner(mutex);
      entered = static_cast<bool>(inner);
    });
    EXPECT_FALSE(entered);
  }
  other.join();
  EXPECT_TRUE(entered);
}

TEST(MutexGuard, IsFalseWhereTheLockCantBeTaken) {
  Mutex mutex;
  FailNextLocks(1);
  {
    const Guard guard(mutex);
    EXPECT_FALSE(static_cast<bool>(guard));
  }
  const Guard guard(mutex);
  EXPECT_TRUE(static_cast<bool>(guard));
}

TEST(MutexGuard, OfThoseThatAreSparedFirstIsTrue) {
  Mutex mutex;
  FailLocksAfter(2, 1);
  for (const bool held : {true, true, false, true}) {
    const Guard guard(mutex);
    EXPECT_EQ(static_cast<bool>(guard), held);
  }
}

TEST(RWMutexGuards, LetReadersInTogether) {
  RWMutex mutex;
  const ReadGuard guard(mutex);
  bool entered = false;
  std::thread([&] {
    const ReadGuard inner(mutex);
    entered = static_cast<bool>(inner);
  }).join();
  EXPECT_TRUE(entered);
}

TEST(RWMutexGuards, LetAWriterInAlone) {
  RWMutex mutex;
  int value = 0;
  std::thread other;
  {
    const WriteGuard guard(mutex);
    ASSERT_TRUE(static_cast<bool>(guard));
    other = std::thread([&] {
      const ReadGuard inner(mutex);
      EXPECT_EQ(value, 1);
    });
    value = 1;
  }
  other.join();
}

TEST(RWMutexGuards, AreFalseWhereTheLockCantBeTaken) {
  RWMutex mutex;
  FailNextLocks(2);
  {
    const ReadGuard read(mutex);
    EXPECT_FALSE(static_cast<bool>(read));
  }
  const WriteGuard write(mutex);
  EXPECT_FALSE(static_cast<bool>(write));
}

TEST(RWMutexGuards, CanBeTakenAgainAfterTheyAreGone) {
  RWMutex first;
  RWMutex second;
  for (int i = 0; i < 100; ++i) {
    const ReadGuard outer(first);
    const ReadGuard inner(second);
    EXPECT_TRUE(outer && inner);
  }
  const WriteGuard write(first);
  EXPECT_TRUE(static_cast<bool>(write));
}

TEST(FailedLocks, AreThoseOfTheCallingThreadAlone) {
  Mutex mutex;
  FailNextLocks(1);
  std::thread([&] {
    const Guard guard(mutex);
    EXPECT_TRUE(static_cast<bool>(guard));
  }).join();
  const Guard guard(mutex);
  EXPECT_FALSE(static_cast<bool>(guard));
}

// A lock that its thread holds already ends the process, with one error line.
constexpr char kSelfLock[] = "A thread asked for a lock that it holds already";

template <class Outer, class Inner, class Lock>
void LockTwice() NO_THREAD_SAFETY_ANALYSIS {
  Lock mutex;
  const Outer outer(mutex);
  const Inner inner(mutex);
}

TEST(SelfLockDeathTest, OfAMutexEndsTheProcess) {
  EXPECT_EXIT((LockTwice<Guard, Guard, Mutex>()), ::testing::ExitedWithCode(255), kSelfLock);
}

TEST(SelfLockDeathTest, OfAWriterThatWritesEndsTheProcess) {
  EXPECT_EXIT((LockTwice<WriteGuard, WriteGuard, RWMutex>()), ::testing::ExitedWithCode(255),
              kSelfLock);
}

TEST(SelfLockDeathTest, OfAWriterThatReadsEndsTheProcess) {
  EXPECT_EXIT((LockTwice<WriteGuard, ReadGuard, RWMutex>()), ::testing::ExitedWithCode(255),
              kSelfLock);
}

TEST(SelfLockDeathTest, OfAReaderThatWritesEndsTheProcess) {
  EXPECT_EXIT((LockTwice<ReadGuard, WriteGuard, RWMutex>()), ::testing::ExitedWithCode(255),
              kSelfLock);
}

TEST(SelfLockDeathTest, OfAReaderThatReadsAgainEndsTheProcess) {
  EXPECT_EXIT((LockTwice<ReadGuard, ReadGuard, RWMutex>()), ::testing::ExitedWithCode(255),
              kSelfLock);
}

class ConditionWait : public ::testing::Test {
 protected:
  Mutex mutex_;
  Condition condition_{mutex_};
};

TEST_F(ConditionWait, TakesTheGivenTimeOfTheSteadyClock) {
  const auto start = std::chrono::steady_clock::now();
  bool timedOut = false;
  const Guard guard(mutex_);
  EXPECT_FALSE(condition_.WaitFor(milliseconds(20), &timedOut));
  EXPECT_EQ(errno, ETIME);
  EXPECT_TRUE(timedOut);
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(20));
}

TEST_F(ConditionWait, IsNotMovedByAWallClockThatIsSetBack) {
  TestSupport::FakeClock clock;
  clock.AdvanceWall(-86400);
  const Guard guard(mutex_);
  EXPECT_FALSE(condition_.WaitFor(microseconds(100)));
}

TEST_F(ConditionWait, OfAPastTimeEndsAtOnce) {
  bool timedOut = false;
  const Guard guard(mutex_);
  EXPECT_FALSE(condition_.WaitFor(microseconds(-1), &timedOut));
  EXPECT_TRUE(timedOut);
}

TEST_F(ConditionWait, EndsByASignal) {
  bool ready = false;
  std::thread other;
  {
    const Guard guard(mutex_);
    other = std::thread([&] {
      const Guard inner(mutex_);
      ready = true;
      condition_.Signal();
    });
    while (!ready) EXPECT_TRUE(condition_.WaitFor(std::chrono::hours(1)));
  }
  other.join();
}

TEST_F(ConditionWait, WithoutLimitEndsByABroadcast) {
  bool ready = false;
  std::thread other;
  {
    const Guard guard(mutex_);
    other = std::thread([&] {
      const Guard inner(mutex_);
      ready = true;
      condition_.Broadcast();
    });
    while (!ready) EXPECT_TRUE(condition_.Wait());
  }
  other.join();
}

}  // namespace
}  // namespace ThreadHelper
