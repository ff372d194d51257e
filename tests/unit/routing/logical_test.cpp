#include "routing/Logical.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <latch>
#include <sstream>
#include <thread>

#include "fixture.h"
#include "platform/linux/FileFaults.h"
#include "support/ScratchFolder.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using MessageRouter::kLogError;
using MessageRouter::Logical;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LogicalTest : public RoutingTest {
 protected:
  std::string Path() const { return (configuration_.Folder() / "LogicalTable").string(); }
  std::string Pages() const { return Path() + ".pag"; }

  static std::vector<std::string> KeysOf(const Logical& logical, const std::string& owner) {
    std::vector<std::string> keys;
    logical.KeysOf(owner, keys);
    return keys;
  }
  // A folder in the place of a file: nobody can open that.
  void MakeUnusable() const { std::filesystem::create_directory(Pages()); }
};

TEST_F(LogicalTest, ItsFilesAreForTheOwnerAlone) {
  Logical logical(Path());
  for (int i = 0; i < 2; ++i) {
    for (const char* ending : {".dir", ".pag"}) {
      EXPECT_EQ(std::filesystem::status(Path() + ending).permissions(),
                std::filesystem::perms(0600))
          << ending;
    }
    EXPECT_TRUE(logical.Reset());
  }
}

TEST_F(LogicalTest, IsOpenOnceItHasItsTwoFiles) {
  const Logical logical(Path());
  EXPECT_FALSE(logical.IsClosed());
  EXPECT_TRUE(std::filesystem::exists(Path() + ".dir"));
  EXPECT_TRUE(std::filesystem::exists(Pages()));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(LogicalTest, FindsWhatWasStoredAlsoAfterARestart) {
  {
    Logical logical(Path());
    EXPECT_EQ(logical.Store("leaf", "child"), 0);
    EXPECT_EQ(logical.Lookup("leaf"), "child");
    EXPECT_EQ(logical.Lookup("other"), "");
  }
  const Logical logical(Path());
  EXPECT_EQ(logical.Lookup("leaf"), "child");
}

TEST_F(LogicalTest, StoringReplaces) {
  Logical logical(Path());
  logical.Store("leaf", "child1");
  logical.Store("leaf", "child2");
  EXPECT_EQ(logical.Lookup("leaf"), "child2");
}

TEST_F(LogicalTest, RemovesOnlyForTheExactOwner) {
  Logical logical(Path());
  logical.Store("leaf", "child");
  for (const char* owner : {"Child", "chil", "children", ""}) {
    EXPECT_EQ(logical.Remove("leaf", owner), Logical::kOtherOwner) << owner;
  }
  EXPECT_EQ(logical.Lookup("leaf"), "child");
  EXPECT_EQ(logical.Remove("leaf", "child"), 0);
  EXPECT_EQ(logical.Lookup("leaf"), "");
}

TEST_F(LogicalTest, ANameOfAnyBytesIsRemovedAloneAndByItsOwner) {
  Logical logical(Path());
  logical.Store("a", "child");
  for (const std::string& name :
       {std::string("a.b"), std::string("a,b"), std::string("a\nb"), std::string("a\xff"),
        std::string("\xc3\xa4"), std::string("a\0b", 3), std::string(1000, 'n')}) {
    ASSERT_EQ(logical.Store(name, "child"), 0) << name;
    EXPECT_EQ(logical.MayRemove(name, "other"), Logical::kOtherOwner) << name;
    EXPECT_EQ(logical.Remove(name, "other"), Logical::kOtherOwner) << name;
    EXPECT_EQ(logical.MayRemove(name, "child"), 0) << name;
    EXPECT_EQ(logical.Remove(name, "child"), 0) << name;
    EXPECT_EQ(logical.MayRemove(name, "child"), Logical::kOtherOwner) << name;
    EXPECT_THAT(KeysOf(logical, "child"), ElementsAre("a")) << name;
  }
}

TEST_F(LogicalTest, ANameThatCannotBeStoredIsOfAnotherOwner) {
  Logical logical(Path());
  logical.Store(std::string(1000, 'n'), "child");
  for (const std::string& name : {std::string(), std::string(1009, 'n'), std::string(5000, 'n')}) {
    EXPECT_EQ(logical.Store(name, "child"), -1) << name.size();
    EXPECT_EQ(logical.MayRemove(name, "child"), Logical::kOtherOwner) << name.size();
    EXPECT_EQ(logical.Remove(name, "child"), Logical::kOtherOwner) << name.size();
  }
  EXPECT_THAT(KeysOf(logical, "child"), ElementsAre(std::string(1000, 'n')));
}

TEST_F(LogicalTest, AnAbsentNameIsOfAnotherOwner) {
  Logical logical(Path());
  EXPECT_EQ(logical.Remove("leaf", "child"), Logical::kOtherOwner);
  EXPECT_EQ(logical.Remove("leaf", ""), Logical::kOtherOwner);
  EXPECT_EQ(logical.Remove("", "child"), Logical::kOtherOwner);
}

TEST_F(LogicalTest, ListsTheKeysOfOneOwnerBehindWhatTheListHas) {
  Logical logical(Path());
  for (int i = 0; i < 500; ++i) {
    logical.Store("leaf" + std::to_string(i), i % 100 == 0 ? "child1" : "child2");
  }
  std::vector<std::string> keys = {"earlier"};
  EXPECT_EQ(logical.KeysOf("child1", keys), 6u);
  EXPECT_THAT(keys,
              UnorderedElementsAre("earlier", "leaf0", "leaf100", "leaf200", "leaf300", "leaf400"));
  EXPECT_EQ(logical.AllKeys(keys), 506u);
  EXPECT_THAT(KeysOf(logical, "child"), IsEmpty());
}

TEST_F(LogicalTest, ListsKeysInTheOrderOfTheDatabase) {
  Logical logical(Path());
  for (const char* name : {"d", "b", "other", "c", "a"}) {
    logical.Store(name, name == std::string("other") ? "child1" : "child2");
  }
  EXPECT_THAT(KeysOf(logical, "child2"), ElementsAre("d", "b", "c", "a"));
  std::vector<std::string> all;
  logical.AllKeys(all);
  EXPECT_THAT(all, ElementsAre("d", "b", "other", "c", "a"));
}

TEST_F(LogicalTest, NamesOfAnyBytesAreNames) {
  Logical logical(Path());
  const std::string names[] = {"a.b.c", "a,b", "a\nb", std::string("a\0b", 3), "\xff\xfe", " "};
  for (const std::string& name : names) EXPECT_EQ(logical.Store(name, name + "!"), 0);
  for (const std::string& name : names) EXPECT_EQ(logical.Lookup(name), name + "!");
}

TEST_F(LogicalTest, AnEmptyNameAndOneThatIsTooLongFail) {
  Logical logical(Path());
  EXPECT_EQ(logical.Store("", "child"), -1);
  EXPECT_EQ(logical.Store(std::string(1004, 'n'), "child"), -1);
  EXPECT_EQ(logical.Store(std::string(1003, 'n'), "child"), 0);
  EXPECT_EQ(logical.Lookup(std::string(100000, 'n')), "");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(LogicalTest, WritesItsPathAndItsHandle) {
  std::ostringstream text;
  const Logical logical(Path());
  logical.write(text << std::hex);
  const std::string start = "Logical(" + Path() + ",";
  ASSERT_EQ(text.str().substr(0, start.size()), start);
  const std::string handle = text.str().substr(start.size());
  EXPECT_EQ(handle.find_first_not_of("0123456789"), handle.size() - 1);
  EXPECT_EQ(handle.back(), ')');
  EXPECT_NE(handle, "0)");
}

TEST_F(LogicalTest, AMapWhoseFilesCannotBeOpenedSaysSoAndIsClosed) {
  MakeUnusable();
  Logical logical(Path());
  EXPECT_TRUE(log_.Has(kLogError, "Failed to open logical routing database\n"));
  EXPECT_TRUE(logical.IsClosed());
  std::ostringstream text;
  logical.write(text);
  EXPECT_EQ(text.str(), "Logical(" + Path() + ",0)");
  std::vector<std::string> keys;
  EXPECT_EQ(logical.Lookup("name"), "");
  EXPECT_EQ(logical.Store("name", "child"), Logical::kClosed);
  EXPECT_EQ(logical.Remove("name", "child"), Logical::kClosed);
  EXPECT_EQ(logical.KeysOf("child", keys), 0u);
  EXPECT_EQ(logical.AllKeys(keys), 0u);
}

TEST_F(LogicalTest, ResetBeginsAnewWithEmptyFiles) {
  Logical logical(Path());
  for (int i = 0; i < 500; ++i) logical.Store("leaf" + std::to_string(i), "child");
  EXPECT_TRUE(logical.Reset());
  EXPECT_FALSE(logical.IsClosed());
  EXPECT_EQ(std::filesystem::file_size(Pages()), 0u);
  EXPECT_EQ(std::filesystem::file_size(Path() + ".dir"), 0u);
  EXPECT_EQ(logical.Lookup("leaf1"), "");
  EXPECT_EQ(logical.Store("leaf1", "child"), 0);
}

TEST_F(LogicalTest, AResetThatCannotDeleteOneFileStillDeletesTheOther) {
  Logical logical(Path());
  logical.Store("leaf", "child");
  const auto block = [](const std::string& file) {
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    std::ofstream(file + "/inside") << "x";
  };
  block(Path() + ".dir");
  EXPECT_FALSE(logical.Reset());
  EXPECT_TRUE(logical.IsClosed());
  std::filesystem::remove_all(Path() + ".dir");
  const Logical next(Path());
  EXPECT_EQ(next.Lookup("leaf"), "");
}

TEST_F(LogicalTest, ResetOpensAMapThatWasClosed) {
  MakeUnusable();
  Logical logical(Path());
  EXPECT_FALSE(logical.Reset());
  EXPECT_TRUE(logical.IsClosed());
  std::filesystem::remove(Pages());
  EXPECT_TRUE(logical.Reset());
  EXPECT_EQ(logical.Store("leaf", "child"), 0);
}

TEST_F(LogicalTest, WithoutTheLockEveryOperationDoesNothing) {
  Logical logical(Path());
  logical.Store("leaf", "child");
  std::vector<std::string> keys;
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(logical.Lookup("leaf"), "");
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(logical.Store("leaf", "other"), Logical::kClosed);
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(logical.Remove("leaf", "child"), Logical::kClosed);
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(logical.KeysOf("child", keys), 0u);
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(logical.Reset());
  ThreadHelper::FailNextLocks(1);
  EXPECT_TRUE(logical.IsClosed());
  EXPECT_EQ(logical.Lookup("leaf"), "child");
}

TEST_F(LogicalTest, DamagedFilesFindNothingAndAreToldOfOnce) {
  {
    Logical logical(Path());
    logical.Store("leaf", "child");
  }
  std::ofstream(Pages(), std::ios::binary) << std::string(1024, '\xff');
  Logical logical(Path());
  EXPECT_FALSE(logical.IsClosed());
  EXPECT_EQ(logical.Lookup("leaf"), "");
  EXPECT_EQ(logical.Store("leaf", "child"), -1);
  EXPECT_EQ(logical.Remove("leaf", "child"), Logical::kOtherOwner);
  EXPECT_THAT(KeysOf(logical, "child"), IsEmpty());
  EXPECT_EQ(log_.Count("Failed to use the logical routing database " + Path()), 1u);
  EXPECT_TRUE(logical.Reset());
  EXPECT_EQ(logical.Store("leaf", "child"), 0);
}

TEST_F(LogicalTest, KeysThatABrokenOffSplitLeftInTwoPagesAreListedOnce) {
  std::string full;
  std::vector<std::string> names;
  {
    Logical logical(Path());
    for (int i = 0; std::filesystem::file_size(Pages()) <= 1024; ++i) {
      full = TextOf(Pages());
      names.push_back("leaf" + std::to_string(i));
      logical.Store(names.back(), "child");
    }
  }
  // The page that was split, as it was before: without the name that belongs there.
  names.pop_back();
  std::fstream(Pages(), std::ios::in | std::ios::out | std::ios::binary) << full;
  const Logical logical(Path());
  std::vector<std::string> keys;
  EXPECT_EQ(logical.AllKeys(keys), names.size());
  EXPECT_THAT(keys, testing::UnorderedElementsAreArray(names));
  EXPECT_THAT(KeysOf(logical, "child"), testing::UnorderedElementsAreArray(names));
}

TEST_F(LogicalTest, AKeyThatWasRemovedAfterABrokenOffSplitIsListedNoMore) {
  std::string full;
  std::vector<std::string> names;
  {
    Logical logical(Path());
    for (int i = 0; std::filesystem::file_size(Pages()) <= 1024; ++i) {
      full = TextOf(Pages());
      names.push_back("leaf" + std::to_string(i));
      logical.Store(names.back(), "child");
    }
  }
  std::fstream(Pages(), std::ios::in | std::ios::out | std::ios::binary) << full;
  Logical logical(Path());
  names.pop_back();
  for (const std::string& name : names) EXPECT_EQ(logical.Remove(name, "child"), 0);
  std::vector<std::string> keys;
  EXPECT_EQ(logical.AllKeys(keys), 0u);
}

TEST_F(LogicalTest, AReadThatFailsIsToldOfAndTheMapGoesOn) {
  {
    Logical logical(Path());
    logical.Store("leaf", "child");
  }
  Logical logical(Path());
  std::vector<std::string> keys;
  Platform::Faults().placedReadToFail = 0;
  EXPECT_EQ(logical.Lookup("leaf"), "");
  EXPECT_EQ(log_.Count("Failed to use the logical routing database " + Path()), 1u);
  EXPECT_EQ(logical.Lookup("leaf"), "child");
  Platform::Faults().placedSearchError = EIO;
  EXPECT_THAT(KeysOf(logical, "child"), IsEmpty());
  EXPECT_THAT(KeysOf(logical, "child"), ElementsAre("leaf"));
  EXPECT_EQ(logical.Store("leaf", "other"), 0);
  EXPECT_EQ(log_.Count("Failed to use the logical routing database " + Path()), 1u);
}

TEST_F(LogicalTest, FilesAtTheirLimitTakeNoNewPageAndThatIsToldOf) {
  Logical logical(Path(), 16 << 10);
  for (int round = 0; round < 2; ++round) {
    int stored = 0;
    while (stored < 10000 && logical.Store("leaf" + std::to_string(stored), "child") == 0) ++stored;
    EXPECT_GT(stored, 100);
    EXPECT_LT(stored, 10000);
    EXPECT_EQ(logical.Lookup("leaf0"), "child");
    EXPECT_EQ(log_.Count("Failed to use the logical routing database " + Path()), round + 1u);
    EXPECT_TRUE(logical.Reset());
  }
}

TEST_F(LogicalTest, ADamagedPageHidesOnlyItsOwnKeysAndIsToldOfOnce) {
  {
    Logical logical(Path());
    for (int i = 0; i < 500; ++i) logical.Store("leaf" + std::to_string(i), "child");
  }
  std::fstream(Pages(), std::ios::in | std::ios::out | std::ios::binary) << "\xff\xff";
  const Logical logical(Path());
  for (int i = 0; i < 2; ++i) EXPECT_GT(KeysOf(logical, "child").size(), 300u);
  EXPECT_EQ(log_.Count("Failed to use the logical routing database " + Path()), 1u);
}

TEST_F(LogicalTest, AWalkLetsTheLockGoBetweenAFewPages) {
  Logical logical(Path());
  constexpr std::size_t kNames = 1000;
  for (std::size_t i = 0; i < kNames; ++i) {
    std::string name = std::to_string(i);
    ASSERT_EQ(logical.Store(name.append(900 - name.size(), 'n'), "child"), 0);
  }
  std::size_t listed = 0;
  unsigned holds = 0;
  for (; listed < kNames; ++holds) {
    ASSERT_LT(holds, 1000u);
    ThreadHelper::FailLocksAfter(holds, 1);
    const std::size_t before = listed;
    listed = KeysOf(logical, "child").size();
    ThreadHelper::FailNextLocks(0);
    EXPECT_LE(listed - before, 64u);
  }
  EXPECT_GT(holds, 10u);
}

TEST_F(LogicalTest, AWalkMeetsWhatIsThereWhileOthersSplitThePagesThatItReads) {
  Logical logical(Path());
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(logical.Store("fixed" + std::to_string(i) + std::string(500, 'n'), "child"), 0);
  }
  std::jthread storing([&] {
    for (int i = 0; i < 2000; ++i) logical.Store("own" + std::to_string(i), "another");
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(KeysOf(logical, "child").size(), 500u);
}

TEST_F(LogicalTest, ManyThreadsReadAndChangeItAtOnce) {
  Logical logical(Path());
  for (int i = 0; i < 200; ++i) logical.Store("fixed" + std::to_string(i), "child");
  constexpr int kThreads = 4;
  std::latch start(kThreads);
  std::vector<std::jthread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      start.arrive_and_wait();
      const std::string own = "own" + std::to_string(number);
      for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(logical.Lookup("fixed" + std::to_string(i)), "child");
        EXPECT_EQ(logical.Store(own + std::to_string(i), own), 0);
        if (i % 50 == 0) {
          EXPECT_EQ(KeysOf(logical, "child").size(), 200u);
        }
        if (i % 2 == 0) {
          EXPECT_EQ(logical.Remove(own + std::to_string(i), own), 0);
        }
      }
    });
  }
  threads.clear();
  std::vector<std::string> keys;
  EXPECT_EQ(logical.AllKeys(keys), 200u + kThreads * 100u);
}

}  // namespace
}  // namespace TestSupport
