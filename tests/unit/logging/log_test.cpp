#include "logging/Log.h"

#include <ace/Log_Msg.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

#include "LogFolder.h"
#include "logging/Streamable.h"
#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

using ::testing::ElementsAre;

TEST(LogMask, FollowsTheLogLevel) {
  EXPECT_EQ(LogMaskFor(0), 0x7B8u);
  EXPECT_EQ(LogMaskFor(1), 0x7BCu);
  EXPECT_EQ(LogMaskFor(2), 0x7BEu);
  EXPECT_EQ(LogMaskFor(3), 0x7BEu);
  EXPECT_EQ(LogMaskFor(0xFFFFFFFF), 0x7BEu);
}

class Mask : public LogFolder {
 protected:
  static void LogAll() {
    LogTrace("trace\n");
    LogDebug("debug\n");
    LogInfo("info\n");
    LogAt(LM_STARTUP, "startup\n");
    LogAt(LM_SHUTDOWN, "shutdown\n");
  }
};

TEST_F(Mask, OfLevelZeroDropsDebugAndTrace) {
  ASSERT_TRUE(Open());
  SetLogMask(LogMaskFor(0));
  LogAll();
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "I info"));
}

TEST_F(Mask, OfLevelOneLetsDebugThroughAndNotTrace) {
  ASSERT_TRUE(Open());
  SetLogMask(LogMaskFor(1));
  LogAll();
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "D debug", "I info"));
}

TEST_F(Mask, OfLevelTwoLetsTraceThrough) {
  ASSERT_TRUE(Open());
  SetLogMask(LogMaskFor(2));
  LogAll();
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "T trace", "D debug", "I info"));
}

TEST_F(Mask, CountsInEveryThread) {
  ASSERT_TRUE(Open());
  SetLogMask(LogMaskFor(0));
  std::thread(&Mask::LogAll).join();
  EXPECT_THAT(Lines(), ElementsAre(::testing::_, "I info"));
}

TEST_F(Mask, TellsWhetherALevelIsEnabled) {
  SetLogMask(LogMaskFor(1));
  EXPECT_TRUE(LogEnabled(kLogDebug));
  EXPECT_FALSE(LogEnabled(kLogTrace));
}

class Console : public ::testing::Test {
 protected:
  Console() { ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR); }
  ~Console() override { ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR); }
};

TEST_F(Console, GetsTheTextBeforeTheLogIsOpened) {
  ::testing::internal::CaptureStderr();
  LogError("early %d\n", 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "early 1\n");
}

TEST_F(Console, GetsALongTextWholeBeforeTheLogIsOpened) {
  const std::string text(100 * 1024, 'x');
  ::testing::internal::CaptureStderr();
  LogError("%s\n", text.c_str());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), text + "\n");
}

class Records : public ::testing::Test {
 protected:
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const auto& line : log_.Lines()) texts.push_back(line.text);
    return texts;
  }

  TestSupport::LogCapture log_;
};

TEST_F(Records, HaveTheTextOfAPrintfFormat) {
  LogInfo("%s %d %X %lu %5.1f %% %c\n", "text", -5, 255, 7UL, 2.25, 'x');
  EXPECT_TRUE(log_.Has(kLogInfo, "text -5 FF 7   2.2 % x\n"));
}

TEST_F(Records, OfAnyLengthAreWhole) {
  for (const std::size_t length : {1022, 1023, 1024, 1025, 4095, 4096, 65536}) {
    const std::string text(length, 'x');
    log_.Clear();
    LogInfo("%s", text.c_str());
    EXPECT_TRUE(log_.Has(kLogInfo, text)) << length;
  }
}

TEST_F(Records, LeaveErrnoAlone) {
  errno = ERANGE;
  LogInfo("text\n");
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(Records, OfASystemErrorEndWithItsTextAndNumber) {
  LogSystemError(kLogWarning, "Opening", ENOENT);
  EXPECT_TRUE(log_.Has(kLogWarning, "Opening: No such file or directory (2)\n"));
}

TEST_F(Records, OfACaughtExceptionNamePlaceTextAndDetail) {
  LogCaughtException("SenderWorker", std::runtime_error("it broke"), "during logoff");
  EXPECT_TRUE(log_.Has(kLogError, "SenderWorker: Caught it broke during logoff\n"));
}

TEST_F(Records, OfACaughtExceptionTakeNullAsEmpty) {
  LogCaughtException(nullptr, std::runtime_error("it broke"), nullptr);
  EXPECT_TRUE(log_.Has(kLogError, ": Caught it broke \n"));
}

TEST_F(Records, OfTheThreadsStreamHaveItsTextAndEmptyIt) {
  std::ostringstream* const stream = LogStream();
  ASSERT_NE(stream, nullptr);
  *stream << "composed " << 1 << "\n";
  EXPECT_EQ(LogStreamFlush(stream, kLogNotice), stream);
  *stream << "next\n";
  LogStreamFlush(stream, kLogInfo);
  EXPECT_THAT(Texts(), ElementsAre("composed 1\n", "next\n"));
}

TEST_F(Records, OfTheThreadsStreamShowAPeersConversionsAsTheyStand) {
  *LogStream() << "%s %n %d%%\n";
  LogStreamFlush(LogStream(), kLogInfo);
  EXPECT_THAT(Texts(), ElementsAre("%s %n %d%%\n"));
}

TEST_F(Records, AreNotMadeOfAnotherThreadsStream) {
  std::ostringstream* const own = LogStream();
  *own << "mine\n";
  std::thread([own] {
    EXPECT_NE(LogStream(), own);
    EXPECT_EQ(LogStreamFlush(own, kLogInfo), own);
  }).join();
  EXPECT_EQ(LogStreamFlush(nullptr, kLogInfo), nullptr);
  EXPECT_THAT(Texts(), ElementsAre());
  LogStreamFlush(own, kLogInfo);
  EXPECT_THAT(Texts(), ElementsAre("mine\n"));
}

TEST_F(Records, OfTheSharedLoggerHaveItsFiveLevels) {
  Orvane::Logger logger;
  Orvane::ILogger& interface = logger;
  EXPECT_EQ(interface.Error("e\n"), 0);
  interface.Warning("w\n");
  interface.Info("i\n");
  interface.Debug("d\n");
  interface.Trace("t\n");
  std::vector<unsigned> levels;
  for (const auto& line : log_.Lines()) levels.push_back(line.level);
  EXPECT_THAT(levels, ElementsAre(kLogError, kLogWarning, kLogInfo, kLogDebug, kLogTrace));
  EXPECT_THAT(Texts(), ElementsAre("e\n", "w\n", "i\n", "d\n", "t\n"));
}

TEST_F(Records, OfTheSharedLoggerShowSomeNumberForANumber) {
  Orvane::Logger().Info("Result %d\n", 5);
  ASSERT_EQ(Texts().size(), 1u);
  EXPECT_THAT(Texts()[0], ::testing::MatchesRegex("Result -?[0-9]+\n"));
}

TEST_F(Records, OfTheSharedLoggerShowOtherConversionsAsTheyStand) {
  Orvane::Logger().Info("from a peer: %s %n 100%");
  EXPECT_THAT(Texts(), ElementsAre("from a peer: %s %n 100%"));
}

TEST(Streamable, WritesAndReadsNothingByItself) {
  class Nothing : public Streamable {};
  Nothing nothing;
  std::stringstream stream("text");
  EXPECT_EQ(&(stream >> nothing), &stream);
  EXPECT_EQ(&(stream << nothing), &stream);
  EXPECT_EQ(stream.str(), "text");
  EXPECT_FALSE(nothing.isEmpty());
}

}  // namespace
}  // namespace MessageRouter
