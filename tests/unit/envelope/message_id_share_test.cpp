// How the ids of a second are shared between the thread that is preferred and all others.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "envelope/MessageIdGenerator.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

constexpr int kAll = 128;

enum Who { kOthers, kPreferred };

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
  bool Draw(Who who) {
    std::optional<MessageIdGenerator::Preference> preferred;
    if (who == kPreferred) preferred.emplace();
    const std::int64_t before = clock_.second;
    clock_.looks = 0;
    generator_.NextMessageId();
    return clock_.second == before;
  }
  void Draw(Who who, int count) {
    for (int i = 0; i < count; ++i) EXPECT_TRUE(Draw(who)) << i;
  }
  // The one that waits has one of the next second.
  int DrawUntilOneWaits(Who who) {
    int count = 0;
    while (Draw(who)) ++count;
    return count;
  }
  // A second of which the preferred thread had so many, and one too few: that one is of the next.
  void ASecondThatLacked(int had) {
    ++clock_.second;
    Draw(kPreferred, had);
    Draw(kOthers, kAll - had);
    EXPECT_FALSE(Draw(kPreferred));
  }

  WaitersClock clock_;
  MessageIdGenerator generator_;
};

TEST_F(IdShare, KeepsNothingWhereNobodyLacks) {
  ++clock_.second;
  Draw(kPreferred, 100);
  ++clock_.second;
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 1) << "one is had already";
}

TEST_F(IdShare, KeepsTwiceTheNeedAndMoreWhereItWasNotMet) {
  ASecondThatLacked(3);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - (2 * 3 + 32));
}

TEST_F(IdShare, LeavesToThePreferredWhatIsKept) {
  ASecondThatLacked(3);
  Draw(kOthers, kAll - 38);
  // One was had by who waited.
  EXPECT_EQ(DrawUntilOneWaits(kPreferred), 38 - 1);
}

TEST_F(IdShare, KeepsNothingTwice) {
  ASecondThatLacked(3);
  Draw(kPreferred, 38 - 1);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 38);
}

TEST_F(IdShare, LeavesAQuarterToOthersWhereThePreferredHasUseForAll) {
  ASecondThatLacked(kAll);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll / 4);
}

TEST_F(IdShare, StaysWhileItIsUsed) {
  ASecondThatLacked(3);
  Draw(kPreferred, 38 - 1);
  for (int i = 0; i < 5; ++i) {
    ++clock_.second;
    Draw(kPreferred, 38);
  }
  ++clock_.second;
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 38);
}

TEST_F(IdShare, GoesBackToOthersLittleByLittle) {
  ASecondThatLacked(3);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 38);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 1 - 33);
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 1 - 28);
}

TEST_F(IdShare, GoesBackToOthersWhole) {
  ASecondThatLacked(kAll);
  for (int i = 0; i < 40; ++i) {
    ++clock_.second;
    Draw(kOthers, 1);
  }
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll - 1);
}

TEST_F(IdShare, IsForgottenAfterASecondWithoutMessages) {
  ASecondThatLacked(3);
  clock_.second += 2;
  EXPECT_EQ(DrawUntilOneWaits(kOthers), kAll);
}

}  // namespace
}  // namespace MessageRouter
