// How the ids of a second are shared between clients and the router itself.
#include <gtest/gtest.h>

#include <cstdint>

#include "envelope/MessageIdGenerator.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

using Origin = MessageIdGenerator::Origin;

constexpr int kAll = 128;

// Time stands still while ids are to be had, and goes on where somebody waits for one.
class IdShare : public testing::Test {
 protected:
  class WaitersClock : public TestSupport::FakeClock {
   public:
    std::int64_t WallSeconds() const override {
      if (++looks > 1) ++second;
      return second;
    }
    mutable std::int64_t second = 1000000;
    mutable int looks = 0;
  };

  // Whether it was of this second still.
  bool Draw(Origin origin) {
    const std::int64_t before = clock_.second;
    clock_.looks = 0;
    generator_.NextMessageId(origin);
    return clock_.second == before;
  }
  void Draw(Origin origin, int count) {
    for (int i = 0; i < count; ++i) EXPECT_TRUE(Draw(origin)) << i;
  }
  // The one that waits has one of the next second.
  int DrawUntilOneWaits(Origin origin) {
    int count = 0;
    while (Draw(origin)) ++count;
    return count;
  }
  // A second in which the router alone had some.
  void ASecondOfTheRouters(int count) {
    ++clock_.second;
    Draw(Origin::kRouter, count);
  }

  WaitersClock clock_;
  MessageIdGenerator generator_;
};

TEST_F(IdShare, IsAllForClientsWhereTheRouterNeedsNone) {
  ++clock_.second;
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll);
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 1) << "one is had already";
}

TEST_F(IdShare, KeepsForTheRouterWhatItHadInTheSecondBefore) {
  ASecondOfTheRouters(10);
  ++clock_.second;
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 10);
}

TEST_F(IdShare, LeavesToTheRouterWhatIsKept) {
  ASecondOfTheRouters(10);
  ++clock_.second;
  Draw(Origin::kClient, kAll - 10);
  EXPECT_EQ(DrawUntilOneWaits(Origin::kRouter), 10);
}

TEST_F(IdShare, KeepsNothingTwice) {
  ASecondOfTheRouters(10);
  ++clock_.second;
  Draw(Origin::kRouter, 10);
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 10);
}

TEST_F(IdShare, GrowsWhereTheRouterLacked) {
  ++clock_.second;
  Draw(Origin::kRouter, 3);
  Draw(Origin::kClient, kAll - 3);
  EXPECT_FALSE(Draw(Origin::kRouter));
  // Twice three and eight more, of which the one that waited is one.
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - (2 * 3 + 8));
}

TEST_F(IdShare, LeavesAQuarterToClients) {
  ++clock_.second;
  Draw(Origin::kRouter, kAll);
  EXPECT_FALSE(Draw(Origin::kRouter));
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll / 4);
}

TEST_F(IdShare, GoesBackToTheClientsSlowly) {
  ASecondOfTheRouters(80);
  ++clock_.second;
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 80);
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 1 - 70);
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 1 - 61);
}

TEST_F(IdShare, GoesBackToTheClientsWhole) {
  ASecondOfTheRouters(kAll);
  for (int i = 0; i < 40; ++i) {
    ++clock_.second;
    Draw(Origin::kClient, 1);
  }
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll - 1);
}

TEST_F(IdShare, IsForgottenAfterASecondWithoutMessages) {
  ASecondOfTheRouters(kAll);
  clock_.second += 2;
  EXPECT_EQ(DrawUntilOneWaits(Origin::kClient), kAll);
}

}  // namespace
}  // namespace MessageRouter
