#include "envelope/MessageIdGenerator.h"

#include <gmock/gmock.h>

#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "broker/Gate.h"
#include "support/FakeClock.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

constexpr std::int64_t kStart = 1352900000;

std::uint32_t Sequence(std::uint32_t id) {
  return id >> 25;
}
std::uint32_t Seconds(std::uint32_t id) {
  return id & 0x01FFFFFF;
}

// Goes on to the next second once it has been read so many times.
class CountingClock : public Platform::Clock {
 public:
  CountingClock() { Replace(this); }
  ~CountingClock() override { Replace(nullptr); }
  std::int64_t WallSeconds() const override {
    ++reads;
    return readsLeft > 0 && --readsLeft >= 0 ? second : second + 1;
  }
  std::int64_t WallMicroseconds() const override { return second * 1000000; }
  SteadyTime SteadyNow() const override { return std::chrono::steady_clock::now(); }

  std::int64_t second = kStart;
  mutable int readsLeft = 0;
  mutable int reads = 0;
};

// Stands still, and knows the threads that read it.
class ReadersClock : public TestSupport::FakeClock {
 public:
  ReadersClock() : FakeClock(kStart) {}
  std::int64_t WallSeconds() const override {
    const std::lock_guard guard(mutex_);
    readers_.insert(std::this_thread::get_id());
    return FakeClock::WallSeconds();
  }
  void Forget() {
    const std::lock_guard guard(mutex_);
    readers_.clear();
  }
  // False if it takes too long.
  bool HasReaders(std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      {
        const std::lock_guard guard(mutex_);
        if (readers_.size() >= count) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::set<std::thread::id> readers_;
};

TEST(MessageIdGenerator, TheFirstIdOfTheProcesssFirstSecondHasSequenceOne) {
  const TestSupport::FakeClock clock(kStart);
  MessageIdGenerator generator;
  const std::uint32_t id = generator.NextMessageId();
  EXPECT_EQ(id, (1u << 25) | (static_cast<std::uint32_t>(kStart) & 0x01FFFFFFu));
}

TEST(MessageIdGenerator, EachFurtherSecondStartsAtSequenceZero) {
  TestSupport::FakeClock clock(kStart);
  MessageIdGenerator generator;
  generator.NextMessageId();
  clock.AdvanceWall(1);
  const std::uint32_t id = generator.NextMessageId();
  EXPECT_EQ(Sequence(id), 0u);
  EXPECT_EQ(Seconds(id), static_cast<std::uint32_t>(kStart + 1) & 0x01FFFFFFu);
  EXPECT_EQ(Sequence(generator.NextMessageId()), 1u);
}

TEST(MessageIdGenerator, ASecondHas128DifferentIds) {
  TestSupport::FakeClock clock(kStart);
  MessageIdGenerator generator;
  clock.AdvanceWall(1);
  std::set<std::uint32_t> ids;
  for (int i = 0; i < 128; ++i) ids.insert(generator.NextMessageId());
  EXPECT_EQ(ids.size(), 128u);
}

TEST(MessageIdGenerator, The129thIdOfASecondWaitsForTheClockToMoveOnAndHasSequenceZero) {
  CountingClock clock;
  clock.readsLeft = 1;
  MessageIdGenerator generator;
  clock.second += 1;
  clock.readsLeft = 128 + 3;
  for (int i = 0; i < 128; ++i) generator.NextMessageId();
  clock.reads = 0;
  const auto start = std::chrono::steady_clock::now();
  const std::uint32_t id = generator.NextMessageId();
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(Sequence(id), 0u);
  EXPECT_EQ(Seconds(id), static_cast<std::uint32_t>(kStart + 2) & 0x01FFFFFFu);
  // The first read and one behind each of three waits, a tenth of a second at most each.
  EXPECT_EQ(clock.reads, 4);
  EXPECT_GE(waited, std::chrono::milliseconds(250));
  EXPECT_LT(waited, std::chrono::seconds(5));
}

TEST(MessageIdGenerator, TheWaitForTheNextSecondGivesUpTheLock) {
  ReadersClock clock;
  MessageIdGenerator generator;
  clock.AdvanceWall(1);
  for (int i = 0; i < 128; ++i) generator.NextMessageId();
  clock.Forget();
  std::uint32_t ids[2] = {};
  std::thread first([&] { ids[0] = generator.NextMessageId(); });
  std::thread second([&] { ids[1] = generator.NextMessageId(); });
  // The time is read under the lock, and nobody leaves while it stands still: the second reader
  // got the lock from a waiter.
  EXPECT_TRUE(clock.HasReaders(2));
  clock.AdvanceWall(1);
  first.join();
  second.join();
  EXPECT_EQ(Sequence(ids[0]) + Sequence(ids[1]), 1u) << "the two first ids of the next second";
  EXPECT_EQ(Seconds(ids[0]), static_cast<std::uint32_t>(kStart + 2) & 0x01FFFFFFu);
  EXPECT_EQ(Seconds(ids[1]), Seconds(ids[0]));
}

TEST(MessageIdGenerator, WhoWaitsForTheNextSecondHoldsNoPlaceAtTheGate) {
  Broker::Gate::SetWidth(1);
  ReadersClock clock;
  MessageIdGenerator generator;
  clock.AdvanceWall(1);
  for (int i = 0; i < 128; ++i) generator.NextMessageId();
  clock.Forget();
  std::uint32_t late = 0;
  std::thread waiter([&] {
    const Broker::Gate::Pass place;
    late = generator.NextMessageId();
  });
  ASSERT_TRUE(clock.HasReaders(1));
  {
    const Broker::Gate::Pass theOnlyPlace;
    clock.AdvanceWall(1);
    // Whether the waiter is on its way back in or not, its way doesn't stand in ours.
    generator.NextMessageId();
  }
  waiter.join();
  EXPECT_EQ(Seconds(late), static_cast<std::uint32_t>(kStart + 2) & 0x01FFFFFFu);
  Broker::Gate::SetWidth(4);
}

TEST(MessageIdGenerator, TheTimeWrapsAt25Bits) {
  TestSupport::FakeClock clock(0x02000000 - 1);
  MessageIdGenerator generator;
  clock.AdvanceWall(1);
  EXPECT_EQ(generator.NextMessageId(), 0u);
}

TEST(MessageIdGenerator, IsZeroIfTheLockFails) {
  const TestSupport::FakeClock clock(kStart);
  MessageIdGenerator generator;
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(generator.NextMessageId(), 0u);
  EXPECT_NE(generator.NextMessageId(), 0u);
}

}  // namespace
}  // namespace MessageRouter
