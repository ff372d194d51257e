#include "platform/Files.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <thread>

#include "Folder.h"

namespace Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class Files : public Folder {};

TEST_F(Files, AWholeFileIsReadUpToTheLimit) {
  for (const std::size_t size : {0, 1, 4095, 4096, 100000}) {
    const std::string text(size, 'x');
    Write("file", text);
    EXPECT_EQ(ReadFile(Path("file"), size, nullptr), text);
  }
}

TEST_F(Files, AFileLongerThanTheLimitIsNotRead) {
  Write("file", "12345");
  int error = 0;
  EXPECT_EQ(ReadFile(Path("file"), 4, &error), std::nullopt);
  EXPECT_EQ(error, EFBIG);
}

TEST_F(Files, AFileWhoseSizeIsNotToldIsReadToItsEnd) {
  const auto text = ReadFile("/proc/self/status", 1 << 20, nullptr);
  ASSERT_TRUE(text.has_value());
  EXPECT_NE(text->find("Threads:"), std::string::npos);
  int error = 0;
  EXPECT_EQ(ReadFile("/proc/self/status", 10, &error), std::nullopt);
  EXPECT_EQ(error, EFBIG);
}

TEST_F(Files, WhatIsNoFileIsNotReadAndNotWaitedFor) {
  int error = 0;
  EXPECT_EQ(ReadFile(Path("missing"), 10, &error), std::nullopt);
  EXPECT_EQ(error, ENOENT);
  EXPECT_EQ(ReadFile(folder_.string(), 10, &error), std::nullopt);
  EXPECT_EQ(error, EISDIR);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(ReadFile(Path("pipe"), 10, &error), std::nullopt);
  EXPECT_EQ(error, EINVAL);
}

TEST_F(Files, AReplacedFileHasTheNewTextAndTheOldPermissions) {
  Write("file", "old");
  ASSERT_TRUE(SetMode(Path("file"), 0641));
  EXPECT_EQ(ReplaceFile(Path("file"), "new", 0600), 0);
  EXPECT_EQ(Text("file"), "new");
  EXPECT_EQ(ModeOf(Path("file")), 0641u);
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(Files, AReplacedFileHasItsOldOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  Write("file", "old");
  ASSERT_EQ(chown(Path("file").c_str(), 12345, 23456), 0);
  EXPECT_EQ(ReplaceFile(Path("file"), "new", 0600), 0);
  struct stat status {};
  ASSERT_EQ(stat(Path("file").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12345u);
  EXPECT_EQ(status.st_gid, 23456u);
}

TEST_F(Files, ANewFileGetsTheGivenPermissionsWhateverTheMask) {
  const mode_t mask = umask(0077);
  EXPECT_EQ(ReplaceFile(Path("file"), "text", 0644), 0);
  umask(mask);
  EXPECT_EQ(ModeOf(Path("file")), 0644u);
}

TEST_F(Files, ALinkStaysAndItsFileIsReplaced) {
  Write("real", "old");
  std::filesystem::create_symlink("real", folder_ / "link");
  EXPECT_EQ(ReplaceFile(Path("link"), "new", 0600), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(folder_ / "link"));
  EXPECT_EQ(Text("real"), "new");
}

TEST_F(Files, AReplacementThatFailsLeavesTheOldFileAndNothingBeside) {
  Write("file", "old");
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit small{1000, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const int error = ReplaceFile(Path("file"), std::string(5000, 'x'), 0600);
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(error, EFBIG);
  EXPECT_EQ(Text("file"), "old");
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(Files, AReplacementInAMissingFolderFails) {
  EXPECT_EQ(ReplaceFile(Path("missing/file"), "x", 0600), ENOENT);
}

TEST_F(Files, AreRemovedAndRenamed) {
  Write("a", "text");
  EXPECT_EQ(RenameFile(Path("a"), Path("b")), 0);
  EXPECT_FALSE(FileExists(Path("a")));
  EXPECT_TRUE(FileExists(Path("b")));
  EXPECT_EQ(RemoveFile(Path("b")), 0);
  EXPECT_EQ(RemoveFile(Path("b")), ENOENT);
  EXPECT_EQ(RenameFile(Path("a"), Path("b")), ENOENT);
}

TEST_F(Files, AreReadableOrNot) {
  Write("file", "text");
  EXPECT_TRUE(IsReadable(Path("file")));
  EXPECT_FALSE(IsReadable(Path("missing")));
}

TEST_F(Files, AreListedWithoutTheFoldersOwnNames) {
  Write("a", "");
  Write(".b", "");
  const auto names = ListFolder(folder_.string());
  ASSERT_TRUE(names.has_value());
  EXPECT_THAT(*names, UnorderedElementsAre("a", ".b"));
  EXPECT_EQ(ListFolder(Path("missing")), std::nullopt);
}

TEST_F(Files, ChangeTheirVersionWithTheirContent) {
  Write("file", "1");
  const auto first = VersionOf(Path("file"));
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(VersionOf(Path("file")), first);
  Write("file", "12");
  EXPECT_NE(VersionOf(Path("file")), first);
  EXPECT_EQ(VersionOf(Path("missing")), std::nullopt);
  EXPECT_EQ(ModeOf(Path("missing")), std::nullopt);
}

TEST_F(Files, ReplacedByTheSameContentHaveAnotherVersion) {
  Write("file", "1");
  const auto first = VersionOf(Path("file"));
  EXPECT_EQ(ReplaceFile(Path("file"), "1", 0600), 0);
  EXPECT_NE(VersionOf(Path("file")), first);
}

class Folders : public Folder {
 protected:
  Folders() : previous_(std::filesystem::current_path()) { std::filesystem::current_path(folder_); }
  ~Folders() override { std::filesystem::current_path(previous_); }

 private:
  std::filesystem::path previous_;
};

TEST_F(Folders, OneIsMadeWithItsPermissions) {
  EXPECT_EQ(MakeFolder("new", 0700), 0);
  EXPECT_EQ(ModeOf("new"), 0700u);
  EXPECT_EQ(MakeFolder("new", 0700), EEXIST);
  EXPECT_EQ(MakeFolder("missing/new", 0700), ENOENT);
}

class MadePath : public Folders,
                 public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(MadePath, ExistsLevelByLevel) {
  EXPECT_EQ(MakeFolders(GetParam().first), 0);
  EXPECT_TRUE(std::filesystem::is_directory(GetParam().second));
  EXPECT_EQ(MakeFolders(GetParam().first), 0) << "what exists is no failure";
}

INSTANTIATE_TEST_SUITE_P(Table, MadePath,
                         ::testing::Values(std::pair("a", "a"), std::pair("a/b/c", "a/b/c"),
                                           std::pair("a/b/", "a/b"), std::pair("./a//b", "a/b"),
                                           std::pair("a\\b/c\\", "a/b/c"),
                                           std::pair("c:/x/y", "c:/x/y"),
                                           std::pair("c:\\x", "c:/x"), std::pair("./", ".")));

TEST_F(Folders, AnAbsolutePathIsMade) {
  EXPECT_EQ(MakeFolders(Path("x/y z/3/")), 0);
  EXPECT_TRUE(std::filesystem::is_directory(Path("x/y z/3")));
}

TEST_F(Folders, AFileOnTheWayIsAFailure) {
  Write("file", "");
  EXPECT_EQ(MakeFolders("file/below"), ENOTDIR);
  EXPECT_EQ(MakeFolders("file"), ENOTDIR);
}

TEST_F(Folders, AnEmptyPathIsNothingToDo) {
  EXPECT_EQ(MakeFolders(""), 0);
}

TEST_F(Folders, ThatWereMadeAreUsedByTheirPathWithSlashes) {
  const std::string path = "a\\b/c\\";
  EXPECT_EQ(MakeFolders(path), 0);
  EXPECT_EQ(SlashPath(path), "a/b/c/");
  EXPECT_EQ(ReplaceFile(SlashPath(path) + "file", "x", 0600), 0);
}

TEST_F(Files, ALockIsHeldByOneObjectAtATime) {
  std::atomic<bool> entered{false};
  std::thread other;
  {
    const FileLock lock(Path("file"));
    ASSERT_TRUE(lock.Locked());
    other = std::thread([&] {
      const FileLock inner(Path("file"));
      entered = inner.Locked();
    });
    EXPECT_FALSE(entered);
  }
  other.join();
  EXPECT_TRUE(entered);
}

TEST_F(Files, ALockIsAFileBesideWithoutRightsForOthersWhateverTheMask) {
  const mode_t mask = umask(0);
  EXPECT_TRUE(FileLock(Path("file")).Locked());
  umask(mask);
  EXPECT_EQ(Names(), std::vector<std::string>{"file.lock"});
  EXPECT_EQ(ModeOf(Path("file.lock")), 0600u);
}

TEST_F(Files, ALockThatOthersCanOpenIsClosedToThem) {
  Write("file.lock", "");
  ASSERT_TRUE(SetMode(Path("file.lock"), 0644));
  EXPECT_TRUE(FileLock(Path("file")).Locked());
  EXPECT_EQ(ModeOf(Path("file.lock")), 0600u);
}

TEST_F(Files, ALockStandsBesideTheFileThatALinkLeadsTo) {
  std::filesystem::create_directory(Path("real"));
  Write("real/file", "");
  std::filesystem::create_symlink("real/file", Path("link"));
  EXPECT_TRUE(FileLock(Path("link")).Locked());
  EXPECT_EQ(Names(), (std::vector<std::string>{"link", "real"}));
  EXPECT_TRUE(FileExists(Path("real/file.lock")));
}

TEST_F(Files, ALockMadeByRootBelongsToTheOwnerOfTheFile) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  Write("file", "");
  ASSERT_EQ(chown(Path("file").c_str(), 12, 34), 0);
  EXPECT_TRUE(FileLock(Path("file")).Locked());
  struct stat status {};
  ASSERT_EQ(stat(Path("file.lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12u);
  EXPECT_EQ(status.st_gid, 34u);
}

TEST_F(Files, ALinkInALocksPlaceIsNotFollowed) {
  std::filesystem::create_symlink("elsewhere", Path("file.lock"));
  EXPECT_FALSE(FileLock(Path("file")).Locked());
  EXPECT_EQ(Names(), std::vector<std::string>{"file.lock"});
}

TEST_F(Files, ALockThatCantBeMadeIsNotLocked) {
  EXPECT_FALSE(FileLock(Path("missing/file")).Locked());
}

}  // namespace
}  // namespace Platform
