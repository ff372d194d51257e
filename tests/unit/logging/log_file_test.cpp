#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <thread>

#include "LogFolder.h"
#include "platform/Process.h"
#include "support/AllocationFailure.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// 1500000000 is 02:40:00 on 14 July 2017, UTC.
constexpr char kFirstFile[] = "router-20170714-024000.log";
constexpr char kSecondFile[] = "router-20170714-024001.log";

class LogFile : public LogFolder {
 protected:
  // Fills the current file up to its maximum of 1024 bytes with one line; a second later.
  void Rotate() {
    clock_.Advance(std::chrono::seconds(1));
    LogInfo("%s\n", std::string(1024, 'x').c_str());
  }

  TestSupport::FakeClock clock_;
};

TEST_F(LogFile, IsNamedAfterItsProgramAndTheMomentInUtc) {
  ASSERT_TRUE(Open());
  EXPECT_THAT(Names(), ElementsAre(kFirstFile));
}

TEST_F(LogFile, LineHasLocalTimeThreadLevelAndText) {
  setenv("TZ", "XYZ-3", 1);
  tzset();
  ASSERT_TRUE(Open());
  LogWarning("number %d\n", 5);
  unsetenv("TZ");
  tzset();
  char thread[8];
  std::snprintf(thread, sizeof thread, "%04X", Platform::ThreadId() & 0xFFFF);
  EXPECT_THAT(Text(kFirstFile), ::testing::EndsWith("\n14.07.2017 05:40:00 " + std::string(thread) +
                                                    " W number 5\n"));
}

TEST_F(LogFile, ThreadsHaveTheKernelsNumbers) {
  ASSERT_TRUE(Open());
  std::uint32_t id = 0;
  std::thread([&id] {
    id = Platform::ThreadId();
    LogInfo("from a thread\n");
  }).join();
  char expected[32];
  std::snprintf(expected, sizeof expected, " %04X I from a thread\n", id & 0xFFFF);
  EXPECT_NE(id, Platform::ThreadId());
  EXPECT_THAT(Text(kFirstFile), ::testing::EndsWith(expected));
}

TEST_F(LogFile, TimeOfALineIsThatOfItsWriting) {
  ASSERT_TRUE(Open());
  LogInfo("one\n");
  clock_.Advance(std::chrono::seconds(61));
  LogInfo("two\n");
  EXPECT_NE(Text(kFirstFile).find(":41:01 "), std::string::npos);
}

TEST_F(LogFile, EachLevelHasItsLetter) {
  ASSERT_TRUE(Open());
  LogTrace("t\n");
  LogDebug("d\n");
  LogInfo("i\n");
  LogNotice("n\n");
  LogWarning("w\n");
  LogError("e\n");
  LogCritical("c\n");
  LogAt(512, "a\n");
  EXPECT_THAT(Lines(), ElementsAre("I SOF: " + Path(kFirstFile), "T t", "D d", "I i", "N n", "W w",
                                   "E e", "C c", "? a"));
}

TEST_F(LogFile, TextThatEndsInALineFeedGetsNoSecondOne) {
  ASSERT_TRUE(Open());
  LogInfo("with\n");
  LogInfo("without");
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "I with", "I without"));
}

TEST_F(LogFile, EmptyTextGivesALineThatEndsBehindTheLevelsBlank) {
  ASSERT_TRUE(Open());
  LogInfo("%s", "");
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "I "));
}

TEST_F(LogFile, OnlyTheFirstOfSeveralPhysicalLinesHasThePrefix) {
  ASSERT_TRUE(Open());
  LogInfo("one\ntwo\n");
  EXPECT_THAT(Text(kFirstFile), ::testing::EndsWith(" I one\ntwo\n"));
}

TEST_F(LogFile, ALineOfAHundredKilobytesIsWrittenWhole) {
  ASSERT_TRUE(Open());
  const std::string text(100 * 1024, 'x');
  LogInfo("%s\n", text.c_str());
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "I " + text));
}

TEST_F(LogFile, LinesOfManyThreadsStayWhole) {
  ASSERT_TRUE(Open(8, 16 * kLarge));
  constexpr unsigned kThreads = 4;
  constexpr unsigned kLines = 200;
  const std::string text(2000, 'y');
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&text] {
      for (unsigned line = 0; line < kLines; ++line) LogInfo("%s\n", text.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> lines = Lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I " + text), kThreads * kLines);
}

TEST_F(LogFile, ALineHasLeftTheProcessWhenTheCallReturns) {
  ASSERT_TRUE(Open());
  LogInfo("seen at once\n");
  EXPECT_THAT(Lines(), ::testing::Contains("I seen at once"));
}

TEST_F(LogFile, NameIsCutBehindItsLastSeparators) {
  ASSERT_TRUE(OpenLog("/usr/bin/c:\\programs\\tool", folder_.string(), 8, kLarge, false));
  EXPECT_THAT(Names(), ElementsAre("tool-20170714-024000.log"));
}

TEST_F(LogFile, WithoutANameHasTheProcessIdAndNoStampAndNoExtension) {
  ASSERT_TRUE(OpenLog(nullptr, folder_.string(), 8, kLarge, false));
  EXPECT_THAT(Names(), ElementsAre("UNKNOWN-PROGRAM-" + std::to_string(Platform::ProcessId())));
}

TEST_F(LogFile, WithoutADirectoryStandsInTheWorkingFolder) {
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(folder_);
  EXPECT_TRUE(OpenLog("router", "", 8, kLarge, false));
  std::filesystem::current_path(previous);
  EXPECT_THAT(Lines(kFirstFile), ElementsAre(std::string("I SOF: ./") + kFirstFile));
}

TEST_F(LogFile, FirstLineIsSofAndLastLineIsEof) {
  ASSERT_TRUE(Open());
  LogInfo("between\n");
  CloseLog();
  EXPECT_THAT(Lines(),
              ElementsAre("I SOF: " + Path(kFirstFile), "I between", "I EOF: " + Path(kFirstFile)));
}

TEST_F(LogFile, NothingIsLoggedToItAfterItsClosing) {
  ASSERT_TRUE(Open());
  CloseLog();
  const std::string text = Text(kFirstFile);
  LogError("late\n");
  CloseLog();
  EXPECT_EQ(Text(kFirstFile), text);
}

TEST_F(LogFile, ASecondOpeningClosesTheOldFileWithEofAndLogsNoSecondSof) {
  ASSERT_TRUE(Open());
  clock_.Advance(std::chrono::seconds(1));
  ASSERT_TRUE(Open());
  LogInfo("new\n");
  EXPECT_THAT(Lines(kFirstFile),
              ElementsAre("I SOF: " + Path(kFirstFile), "I SOF: " + Path(kSecondFile),
                          "I EOF: " + Path(kFirstFile)));
  EXPECT_THAT(Lines(kSecondFile), ElementsAre("I new"));
}

TEST_F(LogFile, RotatesAt1024BytesWhereLessIsConfigured) {
  ASSERT_TRUE(Open(8, 100));
  LogInfo("%s\n", std::string(500, 'x').c_str());
  EXPECT_THAT(Names(), SizeIs(1));
  clock_.Advance(std::chrono::seconds(1));
  LogInfo("%s\n", std::string(500, 'x').c_str());
  EXPECT_THAT(Names(), ElementsAre(kFirstFile, kSecondFile));
}

TEST_F(LogFile, RotationEndsTheOldFileWithEofAndBeginsTheNewOneWithSof) {
  ASSERT_TRUE(Open(8, 1024));
  Rotate();
  LogInfo("next\n");
  EXPECT_EQ(Lines(kFirstFile).back(), "I EOF: " + Path(kFirstFile));
  EXPECT_THAT(Lines(kSecondFile), ElementsAre("I SOF: " + Path(kSecondFile), "I next"));
}

TEST_F(LogFile, SecondRotationWithinASecondTruncatesTheFileOfTheFirst) {
  ASSERT_TRUE(Open(8, 1024));
  Rotate();
  LogInfo("lost\n");
  LogInfo("%s\n", std::string(1024, 'x').c_str());
  EXPECT_THAT(Lines(kSecondFile), ElementsAre("I SOF: " + Path(kSecondFile)));
}

TEST_F(LogFile, AMaximumOf2147483648IsNegativeAndRotatesAfterEveryLine) {
  ASSERT_TRUE(Open(8, 2147483648U));
  clock_.Advance(std::chrono::seconds(1));
  LogInfo("one\n");
  EXPECT_THAT(Names(), SizeIs(2));
  clock_.Advance(std::chrono::seconds(1));
  LogInfo("two\n");
  EXPECT_THAT(Names(), SizeIs(3));
}

class FewFiles : public LogFile, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(FewFiles, KeepTwo) {
  ASSERT_TRUE(Open(GetParam(), 1024));
  for (int i = 0; i < 4; ++i) Rotate();
  EXPECT_THAT(Names(), ElementsAre("router-20170714-024003.log", "router-20170714-024004.log"));
}

INSTANTIATE_TEST_SUITE_P(Table, FewFiles, ::testing::Values(0u, 1u, 2u));

TEST_F(LogFile, OpeningPurgesTheOldestOfAFullFolder) {
  for (int i = 0; i < 4; ++i) Touch("router-2016010" + std::to_string(i) + "-000000.log");
  ASSERT_TRUE(Open(4));
  EXPECT_THAT(Names(), ElementsAre("router-20160101-000000.log", "router-20160102-000000.log",
                                   "router-20160103-000000.log", kFirstFile));
}

// Whichever allocation of it it is.
TEST_F(LogFile, RotationThatLacksMemoryOnceIsFinishedWithTheNextRecord) {
  const std::string full(1024, 'x');
  ASSERT_TRUE(Open(2, 1024));
  Rotate();
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    const std::string before = Names().back();
    clock_.Advance(std::chrono::seconds(1));
    bool written = true;
    {
      const TestSupport::AllocationFailure failure(successes, 1);
      try {
        LogInfo("%s\n", full.c_str());
      } catch (const std::bad_alloc&) {
        written = false;
      }
      complete = !TestSupport::AllocationFailure::Happened();
    }
    LogInfo("next\n");
    EXPECT_THAT(Names(), SizeIs(2)) << successes;
    EXPECT_THAT(Lines(), ::testing::Contains("I next")) << successes;
    EXPECT_TRUE(!written || Names().back() != before) << successes;
  }
}

TEST_F(LogFile, EachPurgedFileIsLoggedFirst) {
  ASSERT_TRUE(Open(2, 1024));
  Rotate();
  Rotate();
  EXPECT_THAT(
      Lines("router-20170714-024002.log"),
      ElementsAre("I SOF: " + Path("router-20170714-024002.log"), "I UNLINK: " + Path(kFirstFile)));
}

TEST_F(LogFile, AForeignFileOfThatNameCountsAsALogFileAndIsSortedByName) {
  Touch("router.log");
  Touch("router-zzz.log");
  Touch("other-1.log");
  Touch("router-1.txt");
  ASSERT_TRUE(Open(2));
  EXPECT_THAT(Names(), ElementsAre("other-1.log", "router-1.txt", "router-zzz.log", "router.log"));
}

TEST_F(LogFile, ABaseNameOfTwoCharactersComparesTwoOfTheExtension) {
  Touch("ab-1.lzz");
  Touch("ab-2.lxx");
  Touch("ab-3.xog");
  ASSERT_TRUE(OpenLog("ab", folder_.string(), 2, kLarge, false));
  EXPECT_THAT(Names(), ElementsAre("ab-2.lxx", "ab-20170714-024000.log", "ab-3.xog"));
}

TEST_F(LogFile, NamesOfFewerThanFiveCharactersAreNoLogFiles) {
  Touch(".log");
  ASSERT_TRUE(OpenLog("", folder_.string(), 2, kLarge, false));
  EXPECT_THAT(Names(), ::testing::Contains(".log"));
}

class NoLogFile : public LogFile {
 protected:
  bool OpenInMissingFolder(bool console) {
    return OpenLog("router", (folder_ / "missing").string(), 2, kLarge, console);
  }
};

TEST_F(NoLogFile, IsReportedToTheConsoleOnce) {
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(OpenInMissingFolder(true));
  const std::string text = ::testing::internal::GetCapturedStderr();
  const std::string report =
      " E ERROR opening: " + Path(std::string("missing/") + kFirstFile) + "\n";
  EXPECT_THAT(text, ::testing::EndsWith(report));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(NoLogFile, StillCopiesLinesToTheConsole) {
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(OpenInMissingFolder(true));
  LogInfo("to the console\n");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::EndsWith(" I to the console\n"));
}

TEST_F(NoLogFile, AndNoConsoleWriteNothingAnywhereAndNoErrorFollows) {
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(OpenInMissingFolder(false));
  LogInfo("nowhere\n");
  CloseLog();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(NoLogFile, IsNotTriedAgain) {
  EXPECT_FALSE(OpenInMissingFolder(false));
  std::filesystem::create_directory(folder_ / "missing");
  LogInfo("%s\n", std::string(4096, 'x').c_str());
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / "missing"));
}

TEST_F(NoLogFile, DeletesNone) {
  for (int i = 0; i < 4; ++i) Touch("router-" + std::to_string(i) + ".log");
  std::filesystem::create_directory(folder_ / kFirstFile);
  EXPECT_FALSE(Open(2));
  EXPECT_THAT(Names(), SizeIs(5));
}

TEST_F(NoLogFile, IsReportedToTheEarlierFile) {
  ASSERT_TRUE(Open());
  EXPECT_FALSE(OpenInMissingFolder(false));
  EXPECT_THAT(Lines(kFirstFile), ::testing::Contains("E ERROR opening: " +
                                                     Path(std::string("missing/") + kFirstFile)));
}

TEST_F(NoLogFile, AfterARotationThatFailsLeavesTheConsoleAlone) {
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(Open(8, 1024, true));
  std::filesystem::remove_all(folder_);
  Rotate();
  LogInfo("still there\n");
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find(" E ERROR opening: " + Path(kSecondFile) + "\n"), std::string::npos);
  EXPECT_THAT(text, ::testing::EndsWith(" I still there\n"));
}

TEST_F(LogFile, ConsoleGetsTheSameLine) {
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(Open(8, kLarge, true));
  LogInfo("both\n");
  CloseLog();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), Text(kFirstFile));
}

TEST_F(LogFile, ProcesssEndKeepsTheLastLine) {
  EXPECT_EXIT(
      {
        Open();
        LogError("the end\n");
        Platform::ExitProcess(-1);
      },
      ::testing::ExitedWithCode(255), "");
  EXPECT_THAT(Lines(kFirstFile), ::testing::Contains("E the end"));
}

}  // namespace
}  // namespace MessageRouter
