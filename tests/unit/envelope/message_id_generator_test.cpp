#include "envelope/MessageIdGenerator.h"

#include <gmock/gmock.h>

#include <set>

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
  EXPECT_LT(waited, std::chrono::seconds(5));
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
