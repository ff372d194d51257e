#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <latch>
#include <thread>

#include "Folder.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/linux/FileFaults.h"

namespace Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// The ways of a file to its name, from the best to the last resort.
struct Way {
  const char* name;
  bool noUnnamedFiles;
  bool noExclusiveRename;
  bool noLinkByNumber;
};

class Published : public Folder, public ::testing::WithParamInterface<Way> {
 protected:
  Published() : publisher_(folder_.string() + "/") {
    Faults().noUnnamedFiles = GetParam().noUnnamedFiles;
    Faults().noExclusiveRename = GetParam().noExclusiveRename;
    Faults().noLinkByNumber = GetParam().noLinkByNumber;
  }
  ~Published() override {
    Faults().noUnnamedFiles = false;
    Faults().noExclusiveRename = false;
    Faults().noLinkByNumber = false;
    Faults().fileSyncError = 0;
    Faults().folderSyncError = 0;
  }

  PublishFolder publisher_;
};

TEST_P(Published, FileHasItsContent) {
  EXPECT_EQ(publisher_.Publish("a", "content", false), 0);
  EXPECT_EQ(publisher_.Publish("b", "", true), 0);
  EXPECT_EQ(Text("a"), "content");
  EXPECT_THAT(Names(), ElementsAre("a", "b"));
}

TEST_P(Published, FileIsForItsOwnerAlone) {
  EXPECT_EQ(publisher_.Publish("a", "content", false), 0);
  EXPECT_EQ(ModeOf(Path("a")), 0600u);
}

TEST_P(Published, NameThatIsTakenKeepsItsFileAndNothingIsLeftBehind) {
  Write("a", "first");
  EXPECT_EQ(publisher_.Publish("a", "second", false), EEXIST);
  EXPECT_EQ(publisher_.Publish("a", "second", true), EEXIST);
  EXPECT_EQ(Text("a"), "first");
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_P(Published, ContentThatDoesNotFitLeavesNothingBehind) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit small{1000, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const int error = publisher_.Publish("a", std::string(5000, 'x'), false);
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(error, EFBIG);
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_EQ(publisher_.Publish("a", "fits", false), 0);
}

TEST_P(Published, FileWhoseNameIsNotSyncedLosesIt) {
  Faults().folderSyncError = EIO;
  EXPECT_EQ(publisher_.Publish("a", "content", true), EIO);
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_EQ(publisher_.Publish("a", "content", false), 0) << "without sync nothing is asked";
}

TEST_P(Published, FileIsSyncedOnceAndSoIsItsFolder) {
  Faults().fileSyncs = 0;
  Faults().folderSyncs = 0;
  EXPECT_EQ(publisher_.Publish("a", "content", true), 0);
  EXPECT_EQ(Faults().fileSyncs, 1u);
  EXPECT_EQ(Faults().folderSyncs, 1u);
}

TEST_P(Published, FileIsNotSyncedUnlessThatIsAskedFor) {
  Faults().fileSyncs = 0;
  Faults().folderSyncs = 0;
  EXPECT_EQ(publisher_.Publish("a", "content", false), 0);
  EXPECT_EQ(Faults().fileSyncs, 0u);
  EXPECT_EQ(Faults().folderSyncs, 0u);
}

TEST_P(Published, FileThatIsNotSyncedGetsNoName) {
  Faults().folderSyncs = 0;
  Faults().fileSyncError = EIO;
  EXPECT_EQ(publisher_.Publish("a", "content", true), EIO);
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_EQ(Faults().folderSyncs, 0u);
}

TEST_P(Published, FileGetsItsNameBesideWhatACrashedProcessOfTheSameIdLeft) {
  const std::string own = ".publish-" + std::to_string(ProcessId()) + "-";
  Write(own + "1", "left");
  Write(own + "2", "left");
  EXPECT_EQ(publisher_.Publish("a", "content", true), 0);
  EXPECT_EQ(Text("a"), "content");
  EXPECT_EQ(Text(own + "1"), "left");
  EXPECT_THAT(Names(), ElementsAre(own + "1", own + "2", "a"));
}

INSTANTIATE_TEST_SUITE_P(Table, Published,
                         ::testing::Values(Way{"Unnamed", false, false, false},
                                           Way{"UnnamedWithoutPrivilege", false, false, true},
                                           Way{"Renamed", true, false, false},
                                           Way{"Linked", true, true, false}),
                         [](const auto& row) { return row.param.name; });

class PublishTo : public Folder {
 protected:
  PublishTo() : publisher_(Path("sub/")) {}
  ~PublishTo() override {
    Faults().folderSyncError = 0;
    Faults().folderSyncHold = nullptr;
  }

  // False if it takes too long.
  static bool Reaches(const std::atomic<unsigned>& counter, unsigned value) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (counter < value) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  PublishFolder publisher_;
};

TEST_F(PublishTo, AFolderThatIsMissingAtFirst) {
  EXPECT_EQ(publisher_.Publish("a", "x", true), ENOENT);
  std::filesystem::create_directory(folder_ / "sub");
  EXPECT_EQ(publisher_.Publish("a", "x", true), 0);
  EXPECT_EQ(Text("sub/a"), "x");
}

TEST_F(PublishTo, AFolderThatIsMadeAnew) {
  std::filesystem::create_directory(folder_ / "sub");
  EXPECT_EQ(publisher_.Publish("a", "x", true), 0);
  std::filesystem::remove_all(folder_ / "sub");
  std::filesystem::create_directory(folder_ / "sub");
  EXPECT_EQ(publisher_.Publish("b", "y", true), 0);
  EXPECT_EQ(Text("sub/b"), "y");
}

TEST_F(PublishTo, TellsItsPath) {
  EXPECT_EQ(publisher_.Path(), Path("sub/"));
}

TEST_F(PublishTo, AllWhoComeDuringASyncShareTheNextOne) {
  std::filesystem::create_directory(folder_ / "sub");
  constexpr unsigned kLater = 16;
  std::latch hold(1);
  Faults().folderSyncs = 0;
  Faults().folderSyncCallers = 0;
  Faults().folderSyncHold = &hold;
  std::vector<std::thread> threads;
  const auto publish = [this](unsigned name) {
    EXPECT_EQ(publisher_.Publish(std::to_string(name), "content", true), 0);
  };
  threads.emplace_back(publish, 0);
  EXPECT_TRUE(Reaches(Faults().folderSyncs, 1));
  for (unsigned i = 1; i <= kLater; ++i) threads.emplace_back(publish, i);
  EXPECT_TRUE(Reaches(Faults().folderSyncCallers, 1 + kLater));
  EXPECT_EQ(Faults().folderSyncs, 1u) << "nobody syncs beside the one who does";
  hold.count_down();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Faults().folderSyncs, 2u);
  const auto names = ListFolder(Path("sub"));
  ASSERT_TRUE(names.has_value());
  EXPECT_THAT(*names, SizeIs(1 + kLater));
}

TEST_F(PublishTo, ManyAtOnceAreAllToldOfASyncThatFailed) {
  std::filesystem::create_directory(folder_ / "sub");
  Faults().folderSyncError = EIO;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 8; ++t) {
    threads.emplace_back(
        [this, t] { EXPECT_EQ(publisher_.Publish(std::to_string(t), "content", true), EIO); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / "sub"));
}

TEST_F(PublishTo, AFullDiskFailsLeavesNothingBehindAndRecovers) {
  std::filesystem::create_directory(folder_ / "sub");
  if (mount("tmpfs", Path("sub").c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "only root can mount a small disk";
  }
  EXPECT_EQ(publisher_.Publish("kept", "content", true), 0);
  const int error = publisher_.Publish("large", std::string(256 * 1024, 'x'), true);
  const auto names = ListFolder(Path("sub"));
  const std::string kept = Text("sub/kept");
  const int afterwards = publisher_.Publish("small", "x", true);
  umount2(Path("sub").c_str(), MNT_DETACH);
  EXPECT_EQ(error, ENOSPC);
  ASSERT_TRUE(names.has_value());
  EXPECT_THAT(*names, ElementsAre("kept"));
  EXPECT_EQ(kept, "content");
  EXPECT_EQ(afterwards, 0);
}

}  // namespace
}  // namespace Platform
