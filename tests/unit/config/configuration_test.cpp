#include "config/Configuration.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/DataLocation.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

constexpr unsigned kError = 128;
const std::string kRouterSection = std::string(kSectionRoot) + "\\Router";

class Settings : public ::testing::Test {
 protected:
  static std::string FileText() {
    std::ifstream stream(kSharedStorePath);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  TestSupport::LogCapture log_;
  TestSupport::ScratchConfiguration scratch_;
};

TEST_F(Settings, AnAbsentValueGivesTheCallersDefault) {
  EXPECT_EQ(GetConfigInt("N", 7), 7u);
  EXPECT_TRUE(GetConfigBool("N", true));
  EXPECT_EQ(GetConfigString("N", "default"), "default");
}

TEST_F(Settings, AWrittenValueIsRead) {
  SetConfigInt("Int", 0xFFFFFFFF);
  SetConfigBool("Bool", true);
  SetConfigString("String", "text");
  EXPECT_EQ(GetConfigInt("Int", 0), 0xFFFFFFFF);
  EXPECT_TRUE(GetConfigBool("Bool", false));
  EXPECT_EQ(GetConfigString("String", ""), "text");
}

TEST_F(Settings, AMinusOneDefaultHasAllBitsSet) {
  EXPECT_EQ(GetConfigInt("ProcessorAffinity", static_cast<std::uint32_t>(-1)), 0xFFFFFFFF);
}

TEST_F(Settings, AStringWhereAnIntegerIsAskedForCountsAsAbsent) {
  SetConfigString("N", "12");
  EXPECT_EQ(GetConfigInt("N", 7), 7u);
  EXPECT_TRUE(GetConfigBool("N", true));
}

TEST_F(Settings, ABooleanStoredAsTwoIsTrue) {
  SetConfigInt("N", 2);
  EXPECT_TRUE(GetConfigBool("N", false));
}

TEST_F(Settings, AStringOfExactly4096CharactersComesBackWhole) {
  SetConfigString("S", std::string(4096, 'x'));
  EXPECT_EQ(GetConfigString("S", ""), std::string(4096, 'x'));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(Settings, AStringOf4097CharactersComesBackCutWithTheErrorLogged) {
  SetConfigString("S", std::string(4097, 'x'));
  EXPECT_EQ(GetConfigString("S", ""), std::string(4096, 'x'));
  EXPECT_TRUE(log_.Has(kError,
                       "The configuration property value length 4097 exceeds the maximum size 4096 "
                       "expected for this parameter. The value will be truncated.\n"));
}

TEST_F(Settings, ADefaultThatIsTooLongIsTheCallersFault) {
  try {
    GetConfigString("S", "four", 3);
    FAIL();
  } catch (const std::invalid_argument& exception) {
    EXPECT_STREQ(exception.what(),
                 "The length of the default string value exceeds the maxSize parameter value.");
  }
}

TEST_F(Settings, AMutexThatCantBeTakenGivesZeroFalseAndEmptyWhateverTheDefault) {
  SetConfigInt("N", 7);
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(GetConfigInt("N", 8), 0u);
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(GetConfigBool("N", true));
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(GetConfigString("S", "too long", 3), "");
}

TEST_F(Settings, AFailureToWriteIsSilent) {
  std::ofstream(kSharedStorePath) << "broken\n";
  log_.Clear();
  ThreadHelper::FailNextLocks(1);
  SetConfigInt("N", 1);
  EXPECT_TRUE(log_.Lines().empty());
}

// How many descriptors of this process are open on lock files.
int OpenLocks() {
  int count = 0;
  for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (read_symlink(descriptor.path(), gone).extension() == ".lock") ++count;
  }
  return count;
}

TEST_F(Settings, AreReadWhileAWriteWaitsForTheFile) {
  SetConfigInt("N", 1);
  std::atomic<bool> written{false};
  std::thread writer;
  {
    const Platform::FileLock otherProcess(kSharedStorePath);
    ASSERT_TRUE(otherProcess.Locked());
    writer = std::thread([&] {
      SetConfigInt("N", 2);
      written = true;
    });
    while (OpenLocks() < 2) std::this_thread::yield();
    EXPECT_EQ(GetConfigInt("N", 0), 1u);
    EXPECT_FALSE(written);
  }
  writer.join();
  EXPECT_EQ(GetConfigInt("N", 0), 2u);
}

TEST_F(Settings, AFailureToSaveIsLogged) {
  std::ofstream(kSharedStorePath) << "broken\n";
  SetConfigString("S", "lost");
  log_.Clear();
  SaveConfiguration();
  EXPECT_TRUE(log_.Has(kError, "Failed to save configuration\n"));
}

TEST_F(Settings, SavingWhatWasWrittenIsSilent) {
  SetConfigString("S", "kept");
  SaveConfiguration();
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(Settings, NullIsNoConfiguration) {
  try {
    SetConfiguration(nullptr, kRouterSection);
    FAIL();
  } catch (const std::invalid_argument& exception) {
    EXPECT_STREQ(exception.what(),
                 "Null configuration object passed to the initialization routine.");
  }
}

TEST_F(Settings, ASectionThatCantBeOpenedIsLoggedAndThrown) {
  try {
    SetConfiguration(new ACE_XPlatform_Configuration(kLocalMachine, "./missing/folder.config"),
                     kRouterSection);
    FAIL();
  } catch (const std::runtime_error& exception) {
    EXPECT_STREQ(exception.what(), "Failed to open configuration section");
  }
  EXPECT_TRUE(log_.Has(kError, "Failed to open configuration section\n"));
}

TEST_F(Settings, ANewConfigurationTakesTheOldOnesPlace) {
  SetConfigInt("N", 1);
  SetConfiguration(new ACE_XPlatform_Configuration(kLocalMachine, "./other.config"),
                   kRouterSection);
  EXPECT_EQ(GetConfigInt("N", 7), 7u);
}

TEST_F(Settings, TheSameConfigurationMayBeSetAgainForAnotherSection) {
  auto* const store = new ACE_XPlatform_Configuration(kLocalMachine, "./other.config");
  SetConfiguration(store, kRouterSection);
  SetConfiguration(store, std::string(kSectionRoot) + "\\Other");
  SetConfigInt("N", 1);
  EXPECT_EQ(GetConfigInt("N", 0), 1u);
}

TEST_F(Settings, OfARouterNamedOtherStandInItsOwnSectionAndFolder) {
  SetConfiguration(new ACE_XPlatform_Configuration(kLocalMachine, kSharedStorePath),
                   std::string(kSectionRoot) + "\\Other");
  SetConfigInt("N", 1);
  EXPECT_NE(FileText().find("[SOFTWARE\\Brelix\\Messaging System\\Other]\n\"N\"=dword:00000001\n"),
            std::string::npos);
  EXPECT_EQ(RouterDirectory("Other"), "./Other");
}

TEST_F(Settings, OfARouterWhoseNameHasLevelsStandInLevelsOfSectionsAndOfFolders) {
  SetConfiguration(new ACE_XPlatform_Configuration(kLocalMachine, kSharedStorePath),
                   std::string(kSectionRoot) + "\\north/two");
  SetConfigInt("N", 1);
  EXPECT_NE(FileText().find("[SOFTWARE\\Brelix\\Messaging System\\north\\two]\n"),
            std::string::npos);
  EXPECT_EQ(RouterDirectory("north\\two"), "./north/two");
}

TEST_F(Settings, FollowAnEditOfTheFile) {
  SetConfigInt("N", 1);
  std::ofstream(kSharedStorePath) << "[" << kRouterSection << "]\n\"N\"=dword:2\n";
  SetConfigInt("M", 1);
  EXPECT_EQ(GetConfigInt("N", 0), 2u);
}

class Location : public Settings {
 protected:
  Location() {
    Platform::SetCommonDataFolderSource([] { return std::optional<std::string>("/common"); });
  }
  ~Location() override { Platform::SetCommonDataFolderSource(nullptr); }

  static void UseRelative(const char* line) {
    std::ofstream("router.config") << "[SOFTWARE\\Brelix\\Messaging System]\n" << line << "\n";
  }
};

TEST_F(Location, IsTheWorkingFolderWithUseRelativeDataLocation) {
  UseRelative("\"UseRelativeDataLocation\"=dword:00000001");
  EXPECT_EQ(DataRoot(), "./");
}

TEST_F(Location, IsBelowTheCommonFolderWithoutUseRelativeDataLocation) {
  for (const char* const line :
       {"\"UseRelativeDataLocation\"=dword:00000000", "\"UseRelativeDataLocation\"=\"1\"", ""}) {
    UseRelative(line);
    EXPECT_EQ(DataRoot(), "/common/Brelix/Orvane System/3/") << line;
  }
}

TEST_F(Location, IsBelowTheCommonFolderWithoutAStoreThatDecidesIt) {
  std::filesystem::remove("router.config");
  EXPECT_EQ(DataRoot(), "/common/Brelix/Orvane System/3/");
}

TEST_F(Location, IsTheWorkingFolderWithUseRelativeDataLocationAbsentAndTheFolderQueryFailing) {
  UseRelative("");
  Platform::SetCommonDataFolderSource([] { return std::optional<std::string>(); });
  EXPECT_EQ(DataRoot(), "./");
}

TEST_F(Location, NamesBelowTheRoutersDirectoryAreFixed) {
  EXPECT_EQ(RouterDirectory("R"), "./R");
  EXPECT_EQ(LogDirectory("R"), "./R/Logs/");
  EXPECT_EQ(ReportDirectory("R"), "./R/NetworkReport/");
  EXPECT_EQ(ReportFile("R"), "./R/NetworkReport/ReportData.xml");
  EXPECT_EQ(RouterTablePath("R"), "./R/table_router.txt");
  EXPECT_EQ(LogicalTablePath("R"), "./R/LogicalTable");
  EXPECT_EQ(EnvelopeDirectory("R"), "./R/Envelopes/");
}

TEST_F(Location, OfEnvelopesIsTheValueOfEnvelopeDir) {
  SetConfigString("EnvelopeDir", "/somewhere/else");
  EXPECT_EQ(EnvelopeDirectory("R"), "/somewhere/else/");
  SetConfigString("EnvelopeDir", "/somewhere/else/");
  EXPECT_EQ(EnvelopeDirectory("R"), "/somewhere/else/");
}

TEST_F(Location, ABackslashSeparatesLevelsAsInTheSections) {
  EXPECT_EQ(RouterDirectory("a\\b"), "./a/b");
  EXPECT_EQ(RouterTablePath("a\\b"), "./a/b/table_router.txt");
  SetConfigString("EnvelopeDir", "\\srv\\envelopes");
  EXPECT_EQ(EnvelopeDirectory("R"), "/srv/envelopes/");
}

TEST_F(Location, TheProcesssRouterNameIsTheOneSet) {
  EXPECT_EQ(RouterName(), "Router");
  SetRouterName("Other");
  EXPECT_EQ(RouterName(), "Other");
}

}  // namespace
}  // namespace MessageRouter
