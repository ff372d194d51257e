// The last write of the table's file, with which routing stops.
#include <filesystem>
#include <new>

#include "fixture.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;
using MessageRouter::kLogWarning;

class LastWriteTest : public RoutingTest {
 protected:
  // The write of the file finds no memory from now on.
  void TakeTheMemory() {
    const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
    ARouter("child").LogonRouter("child", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(),
                                 0, true);
    host_.onObjectToString = [] { throw std::bad_alloc(); };
  }
  // No file can be written from now on.
  void TakeTheFile() {
    std::filesystem::remove(TablePath());
    std::filesystem::create_directory(TablePath());
  }
  void GiveTheFileBack() { std::filesystem::remove(TablePath()); }
  // Ends with the pause of that number.
  void WriteLast(unsigned number, const std::function<void()>& mend) {
    table_.WriteLast([&] {
      if (++pauses_ == number) mend();
    });
  }
  std::size_t Repetitions() const {
    return log_.Count("Trying again to write the router table file\n");
  }

  unsigned pauses_ = 0;
};

TEST_F(LastWriteTest, ThatSucceedsClosesTheTableAndIsNotRepeated) {
  AClient("agent");
  WriteLast(1, [] {});
  EXPECT_EQ(TableText(), "agent.0..\n");
  EXPECT_EQ(table_.Find("agent"), nullptr);
  EXPECT_EQ(pauses_, 0u);
}

TEST_F(LastWriteTest, ThatFoundNoMemoryIsRepeatedWithWhatCameInMeanwhile) {
  TakeTheMemory();
  WriteLast(1, [this] {
    host_.onObjectToString = nullptr;
    AClient("late");
  });
  EXPECT_EQ(pauses_, 1u);
  EXPECT_TRUE(log_.Has(kLogWarning, "Trying again to write the router table file\n"));
  EXPECT_TRUE(TableText().starts_with("child.1."));
  EXPECT_TRUE(TableText().ends_with("\nlate.0..\n"));
  EXPECT_EQ(table_.Find("child"), nullptr);
}

TEST_F(LastWriteTest, ThatTheDiskDidNotTakeIsRepeatedWhileTheTableStaysClosed) {
  AClient("agent");
  TakeTheFile();
  WriteLast(2, [this] {
    EXPECT_THROW(table_.Register("late", false), BrelixMessaging::Rejected);
    GiveTheFileBack();
  });
  EXPECT_EQ(pauses_, 2u);
  EXPECT_EQ(TableText(), "agent.0..\n");
  EXPECT_EQ(log_.Count("Cannot open the router table file for writing.\n"), 2u);
}

TEST_F(LastWriteTest, ThatFoundALockTooFewIsRepeated) {
  AClient("agent");
  // That of the last write's time, the file's, and that of the rows.
  for (const unsigned spared : {2u, 3u, 4u}) {
    ThreadHelper::FailLocksAfter(spared, 1);
    WriteLast(0, [] {});
    EXPECT_EQ(TableText(), "agent.0..\n") << spared;
    table_.Clear();
    table_.ReadTable(false);
    WriteTableText("");
  }
  EXPECT_EQ(pauses_, 3u);
}

TEST_F(LastWriteTest, ThatFailsForGoodEndsSoon) {
  AClient("agent");
  TakeTheFile();
  WriteLast(0, [] {});
  EXPECT_EQ(pauses_, 2u);
  EXPECT_EQ(Repetitions(), 2u);
}

TEST_F(LastWriteTest, ThatFindsNoMemoryForGoodEndsSoonInItsException) {
  TakeTheMemory();
  EXPECT_THROW(WriteLast(0, [] {}), std::bad_alloc);
  EXPECT_EQ(pauses_, 2u);
}

TEST_F(LastWriteTest, ThatFailedIsMadeUpForByTheNextReading) {
  AClient("former");
  table_.WriteTable(false);
  AClient("agent");
  TakeTheFile();
  WriteLast(0, [] {});
  table_.Clear();
  GiveTheFileBack();
  WriteTableText("former.0..\n");
  table_.ReadTable(true);
  EXPECT_NE(table_.Find("former"), nullptr);
  EXPECT_NE(table_.Find("agent"), nullptr);
  EXPECT_EQ(TableText(), "agent.0..\nformer.0..\n");
  // From here on the file is what counts.
  table_.Clear();
  WriteTableText("other.0..\n");
  table_.ReadTable(true);
  EXPECT_EQ(table_.Find("agent"), nullptr);
  EXPECT_NE(table_.Find("other"), nullptr);
}

TEST_F(LastWriteTest, ThatFailsAtTheNextReadingTooIsMadeByTheTick) {
  AClient("agent");
  TakeTheFile();
  WriteLast(0, [] {});
  table_.Clear();
  table_.ReadTable(false);
  EXPECT_NE(table_.Find("agent"), nullptr);
  GiveTheFileBack();
  PassAMinute();
  table_.Tick();
  EXPECT_EQ(TableText(), "agent.0..\n");
}

TEST_F(LastWriteTest, ThatFoundNoMemoryOpensTheTableWithoutALock) {
  TakeTheMemory();
  host_.onObjectToString = [] {
    ThreadHelper::FailNextLocks(1);
    throw std::bad_alloc();
  };
  EXPECT_THROW(table_.WriteTable(true), std::bad_alloc);
  ThreadHelper::FailNextLocks(0);
  EXPECT_NE(table_.Find("child"), nullptr);
}

}  // namespace
}  // namespace TestSupport
