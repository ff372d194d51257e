#include "parent/HeartbeatPeriods.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

namespace MessageRouter {
namespace {

constexpr std::int64_t kStart = 1'700'000'000;

std::vector<unsigned> Draws(const std::string& name, std::int64_t start, std::size_t count) {
  HeartbeatPeriods periods(name, start);
  std::vector<unsigned> draws;
  while (draws.size() < count) draws.push_back(periods.Draw());
  return draws;
}

TEST(HeartbeatPeriods, AreTheSameForTheSameNameAndTime) {
  EXPECT_EQ(Draws("router1", kStart, 10), Draws("router1", kStart, 10));
}

TEST(HeartbeatPeriods, OfTwoRoutersThatAreStartedTogetherDiffer) {
  EXPECT_NE(Draws("router1", kStart, 10), Draws("router2", kStart, 10));
}

TEST(HeartbeatPeriods, OfTwoStartsDiffer) {
  EXPECT_NE(Draws("router1", kStart, 10), Draws("router1", kStart + 1, 10));
}

TEST(HeartbeatPeriods, AreDrawnFromZeroTo32767) {
  std::vector<unsigned> draws = Draws("router1", kStart, 100000);
  const auto [least, most] = std::minmax_element(draws.begin(), draws.end());
  EXPECT_LT(*least, 10u);
  EXPECT_LE(*most, 32767u);
  EXPECT_GT(*most, 32757u);
}

TEST(HeartbeatPeriods, AreAnyOfAHundredBetweenOneBaseAndTwo) {
  HeartbeatPeriods periods("router1", kStart);
  std::set<std::int64_t> drawn;
  for (int i = 0; i < 100000; ++i) drawn.insert(periods.Next(10).count());
  EXPECT_EQ(drawn.size(), 100u);
  EXPECT_EQ(*drawn.begin(), 600);
  EXPECT_EQ(*drawn.rbegin(), 1194);
}

TEST(HeartbeatPeriods, AreCutToWholeSeconds) {
  HeartbeatPeriods periods("router1", kStart);
  std::set<std::int64_t> drawn;
  for (int i = 0; i < 100000; ++i) drawn.insert(periods.Next(1).count());
  EXPECT_EQ(*drawn.begin(), 60);
  EXPECT_EQ(*drawn.rbegin(), 119);  // 119.4
}

TEST(HeartbeatPeriods, OfNoMinutesAreNone) {
  HeartbeatPeriods periods("router1", kStart);
  EXPECT_EQ(periods.Next(0).count(), 0);
}

TEST(HeartbeatPeriods, StayWithinTheClock) {
  HeartbeatPeriods periods("router1", kStart);
  EXPECT_EQ(periods.Next(0xFFFFFFFF).count(), 3'000'000'000);
}

}  // namespace
}  // namespace MessageRouter
