#include "core/SecondOfOwn.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "support/FakeClock.h"
#include "support/ScratchFolder.h"

namespace MessageRouter {
namespace {

class SecondOfOwn : public testing::Test {
 protected:
  // What the clock of the process shows when the wait is over.
  double WaitFrom(double now) {
    clock_.SetWall(0);
    Pass(now);
    AwaitSecondOfOwn({scratch_.Path("none"), scratch_.Folder()}, [this](unsigned milliseconds) {
      slept_ += milliseconds;
      if (runs_) clock_.Advance(std::chrono::milliseconds(milliseconds));
    });
    return static_cast<double>(clock_.WallMicroseconds()) / 1e6;
  }

  void ChangedAt(double seconds) {
    using std::filesystem::file_time_type;
    const auto time = std::chrono::file_clock::from_sys(
        std::chrono::sys_time(std::chrono::milliseconds(static_cast<long>(seconds * 1000))));
    std::filesystem::last_write_time(scratch_.Folder(),
                                     std::chrono::time_point_cast<file_time_type::duration>(time));
  }

  void Pass(double seconds) {
    clock_.Advance(std::chrono::milliseconds(static_cast<long>(seconds * 1000)));
  }

  TestSupport::ScratchFolder scratch_;
  TestSupport::FakeClock clock_;
  unsigned slept_ = 0;
  bool runs_ = true;
};

TEST_F(SecondOfOwn, IsAwaitedWhereTheFolderChangedInThisOne) {
  ChangedAt(1000.3);
  const double end = WaitFrom(1000.4);
  EXPECT_GE(end, 1001.0);
  EXPECT_LT(end, 1001.1);
}

TEST_F(SecondOfOwn, IsThereAtOnceInALaterOne) {
  ChangedAt(1000.9);
  EXPECT_EQ(WaitFrom(1001.0), 1001.0);
  EXPECT_EQ(slept_, 0u);
}

TEST_F(SecondOfOwn, IsAwaitedForStampsThatAreATickBehind) {
  ChangedAt(999.995);
  EXPECT_GE(WaitFrom(1000.2), 1001.0);
}

TEST_F(SecondOfOwn, IsAwaitedWhereTheClockWasSetBackALittle) {
  ChangedAt(1001.2);
  EXPECT_GE(WaitFrom(1000.9), 1002.0);
}

TEST_F(SecondOfOwn, IsNotAwaitedForStampsOfTheFuture) {
  ChangedAt(5000.5);
  EXPECT_EQ(WaitFrom(1000.5), 1000.5);
}

TEST_F(SecondOfOwn, IsNotAwaitedLongerThanTwoSecondsByAClockThatStands) {
  ChangedAt(1000.5);
  runs_ = false;
  EXPECT_EQ(WaitFrom(1000.5), 1000.5);
  EXPECT_EQ(slept_, 2000u);
}

TEST_F(SecondOfOwn, ChangesWithEveryNameThatComesOrGoes) {
  for (const bool comes : {true, false}) {
    ChangedAt(1000.5);
    comes ? scratch_.Write("00000001.msg", "")
          : void(std::filesystem::remove(scratch_.Path("00000001.msg")));
    const auto stamp =
        std::chrono::file_clock::to_sys(std::filesystem::last_write_time(scratch_.Folder()));
    const double changed = std::chrono::duration<double>(stamp.time_since_epoch()).count();
    ASSERT_GT(changed, 1'000'000'000.0) << "of this moment";
    EXPECT_GE(WaitFrom(changed), static_cast<double>(static_cast<long>(changed)) + 1);
  }
}

}  // namespace
}  // namespace MessageRouter
