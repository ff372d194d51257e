#include "platform/PlacedFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "Folder.h"
#include "platform/Files.h"
#include "platform/linux/FileFaults.h"

namespace Platform {
namespace {

class PlacedFileTest : public Folder {
 protected:
  ~PlacedFileTest() override {
    Faults().placedWritesLeft = -1;
    Faults().placedWritesTakeNothing = false;
    Faults().placedReadToFail = -1;
    Faults().placedSearchError = 0;
  }

  static PlacedFile::Mode Made() { return {.write = true, .create = true, .permissions = 0600}; }
  static std::string Read(const PlacedFile& file, std::uint64_t offset, std::size_t size) {
    std::string buffer(size, '?');
    std::size_t count = 0;
    EXPECT_EQ(file.Read(offset, buffer.data(), size, count), 0);
    buffer.resize(count);
    return buffer;
  }
};

TEST_F(PlacedFileTest, IsMadeWithTheGivenPermissions) {
  PlacedFile file;
  EXPECT_EQ(file.Open(Path("a"), Made()), 0);
  EXPECT_EQ(ModeOf(Path("a")), 0600u);
}

TEST_F(PlacedFileTest, IsNotMadeUnlessAskedFor) {
  PlacedFile file;
  EXPECT_EQ(file.Open(Path("a"), {.write = true}), ENOENT);
  EXPECT_TRUE(Names().empty());
}

TEST_F(PlacedFileTest, GivesBackWhatWasWrittenAtAPlace) {
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  ASSERT_EQ(file.Write(5, "abc", 3), 0);
  EXPECT_EQ(Read(file, 5, 3), "abc");
  EXPECT_EQ(Read(file, 4, 2), std::string("\0a", 2));
  std::uint64_t size = 0;
  EXPECT_EQ(file.Size(size), 0);
  EXPECT_EQ(size, 8u);
}

TEST_F(PlacedFileTest, AReadEndsWhereTheFileEnds) {
  Write("a", "abc");
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), {}), 0);
  EXPECT_EQ(Read(file, 1, 10), "bc");
  EXPECT_EQ(Read(file, 3, 10), "");
  EXPECT_EQ(Read(file, 1000, 10), "");
}

TEST_F(PlacedFileTest, AFileOpenedForReadingCannotBeWritten) {
  Write("a", "abc");
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), {}), 0);
  EXPECT_NE(file.Write(0, "x", 1), 0);
  EXPECT_EQ(Text("a"), "abc");
}

TEST_F(PlacedFileTest, AnOldFileIsKeptUnlessItIsToBeTruncated) {
  Write("a", "abc");
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  EXPECT_EQ(Read(file, 0, 3), "abc");
  PlacedFile::Mode mode = Made();
  mode.truncate = true;
  ASSERT_EQ(file.Open(Path("a"), mode), 0);
  EXPECT_EQ(Read(file, 0, 3), "");
}

TEST_F(PlacedFileTest, WhatIsNoRegularFileIsRefused) {
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  PlacedFile file;
  EXPECT_EQ(file.Open(Path("pipe"), Made()), EINVAL);
  EXPECT_EQ(file.Open(folder_.string(), {}), EISDIR);
}

TEST_F(PlacedFileTest, HolesArePassedOver) {
  constexpr std::uint64_t kFar = std::uint64_t{1} << 40;
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  if (file.Write(kFar, "x", 1) == EFBIG) GTEST_SKIP() << "no file system for large files";
  std::optional<std::uint64_t> found;
  EXPECT_EQ(file.NextContent(0, found), 0);
  ASSERT_TRUE(found.has_value());
  EXPECT_LE(*found, kFar);
  EXPECT_GT(*found, kFar - (1 << 20));
  EXPECT_EQ(file.NextContent(kFar + 1, found), 0);
  EXPECT_FALSE(found.has_value());
}

TEST_F(PlacedFileTest, WritesFailAsATestPlannedIt) {
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  Faults().placedWritesLeft = 1;
  EXPECT_EQ(file.Write(0, "a", 1), 0);
  EXPECT_EQ(file.Write(1, "b", 1), ENOSPC);
  EXPECT_EQ(file.Write(1, "b", 1), ENOSPC);
  EXPECT_EQ(Text("a"), "a");
}

TEST_F(PlacedFileTest, OneReadFailsAsATestPlannedIt) {
  Write("a", "abc");
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), {}), 0);
  Faults().placedReadToFail = 1;
  char byte = 0;
  std::size_t count = 0;
  EXPECT_EQ(Read(file, 0, 1), "a");
  EXPECT_EQ(file.Read(1, &byte, 1, count), EIO);
  EXPECT_EQ(Read(file, 1, 1), "b");
}

TEST_F(PlacedFileTest, OneSearchForContentFailsAsATestPlannedIt) {
  Write("a", "abc");
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), {}), 0);
  Faults().placedSearchError = EIO;
  std::optional<std::uint64_t> found;
  EXPECT_EQ(file.NextContent(0, found), EIO);
  EXPECT_EQ(file.NextContent(0, found), 0);
  EXPECT_EQ(found, 0u);
}

TEST_F(PlacedFileTest, HolesTakeNothingOnTheDisk) {
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  const std::string bytes(100000, 'x');
  ASSERT_EQ(file.Write(std::uint64_t{1} << 30, bytes.data(), bytes.size()), 0);
  std::uint64_t allocated = 0;
  EXPECT_EQ(file.Allocated(allocated), 0);
  EXPECT_GE(allocated, bytes.size());
  EXPECT_LT(allocated, std::uint64_t{1} << 29);
}

TEST_F(PlacedFileTest, AWriteOfWhichNothingIsTakenFails) {
  PlacedFile file;
  ASSERT_EQ(file.Open(Path("a"), Made()), 0);
  Faults().placedWritesTakeNothing = true;
  EXPECT_EQ(file.Write(0, "a", 1), ENOSPC);
  EXPECT_EQ(file.Write(0, "", 0), 0);
}

TEST_F(PlacedFileTest, WithNothingOpenEveryOperationFails) {
  PlacedFile file;
  std::uint64_t size = 0;
  std::size_t count = 0;
  std::optional<std::uint64_t> found;
  char byte = 0;
  EXPECT_EQ(file.Size(size), EBADF);
  EXPECT_EQ(file.Allocated(size), EBADF);
  EXPECT_EQ(file.Read(0, &byte, 1, count), EBADF);
  EXPECT_EQ(file.Write(0, &byte, 1), EBADF);
  EXPECT_EQ(file.NextContent(0, found), EBADF);
}

}  // namespace
}  // namespace Platform
