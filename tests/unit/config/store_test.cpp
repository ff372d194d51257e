#include "config/ACE_XPlatform_Configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/Files.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"
#include "support/ScratchFolder.h"

namespace MessageRouter {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

constexpr unsigned kWarning = 32;

class Store : public ::testing::Test, protected TestSupport::ScratchFolder {
 protected:
  std::unique_ptr<ACE_XPlatform_Configuration> Open(const std::string& section = "a\\b",
                                                    bool create = true) {
    auto store = std::make_unique<ACE_XPlatform_Configuration>(kLocalMachine, path_);
    EXPECT_TRUE(store->OpenSection(section, create));
    return store;
  }

  std::string Text() const { return TestSupport::TextOf(path_); }

  void Write(const std::string& text) const { std::ofstream(path_) << text; }

  // As an editor that writes beside and renames.
  void Replace(const std::string& text) const {
    std::ofstream(path_ + "~") << text;
    std::filesystem::rename(path_ + "~", path_);
  }

  std::vector<std::string> Beside() const {
    std::vector<std::string> names = Names();
    std::erase(names, "store.config");
    std::erase(names, "store.config.lock");
    return names;
  }

  static std::uint32_t Int(ACE_XPlatform_Configuration& store, const char* name) {
    bool found = false;
    const std::uint32_t value = store.GetIntegerValue(name, found);
    return found ? value : 0xDEAD;
  }

  static bool SetInt(ACE_XPlatform_Configuration& store, const char* name, std::uint32_t value) {
    bool ok = false;
    store.SetIntegerValue(name, value, ok);
    return ok;
  }

  TestSupport::LogCapture log_;
  TestSupport::FakeClock clock_;
  const std::string path_ = Path("store.config");
};

TEST_F(Store, OpeningAMissingSectionWithoutCreateFailsAndMakesNothing) {
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  EXPECT_FALSE(store.OpenSection("a\\b", false));
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Store, OpeningWithCreateMakesTheSectionOnDisk) {
  Open();
  EXPECT_EQ(Text(), "[a\\b]\n");
}

TEST_F(Store, AnInvalidSectionNameCantBeOpened) {
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  for (const std::string& name : {std::string(), std::string("a]b"), std::string("[a"),
                                  std::string(256, 'a'), std::string("a\nb")}) {
    EXPECT_FALSE(store.OpenSection(name, true)) << name;
  }
}

TEST_F(Store, AFailedOpeningKeepsTheCurrentSection) {
  const auto store = Open();
  ASSERT_TRUE(SetInt(*store, "n", 1));
  EXPECT_FALSE(store->OpenSection("elsewhere", false));
  EXPECT_EQ(Int(*store, "n"), 1u);
}

TEST_F(Store, WithoutASectionNothingIsFoundAndNothingIsWritten) {
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  EXPECT_EQ(Int(store, "n"), 0xDEADu);
  EXPECT_FALSE(SetInt(store, "n", 1));
  EXPECT_FALSE(store.RemoveValue("n"));
  EXPECT_FALSE(store.RemoveSection("b"));
}

TEST_F(Store, KeepsTextsIntegersBooleansAndBytes) {
  const auto store = Open();
  bool ok = false;
  store->SetStringValue("text", "one\ntwo", ok);
  EXPECT_TRUE(ok);
  store->SetBooleanValue("yes", true, ok);
  EXPECT_TRUE(ok);
  const unsigned char bytes[] = {0, 1, 0xFF};
  store->SetBinaryValue("bytes", bytes, sizeof bytes, ok);
  EXPECT_TRUE(ok);
  EXPECT_TRUE(SetInt(*store, "number", 0xFFFFFFFF));

  const auto again = Open("a\\b", false);
  bool found = false;
  EXPECT_EQ(again->GetStringValue("text", found), "one\ntwo");
  EXPECT_TRUE(again->GetBooleanValue("yes", found));
  EXPECT_THAT(again->GetBinaryValue("bytes", 100, found), ElementsAre(0, 1, 0xFF));
  EXPECT_THAT(again->GetBinaryValue("bytes", 2, found), ElementsAre(0, 1));
  EXPECT_EQ(Int(*again, "number"), 0xFFFFFFFF);
}

TEST_F(Store, ABooleanIsAnIntegerOfZeroOrOne) {
  const auto store = Open();
  bool ok = false;
  store->SetBooleanValue("yes", true, ok);
  store->SetBooleanValue("no", false, ok);
  EXPECT_EQ(Int(*store, "yes"), 1u);
  EXPECT_EQ(Int(*store, "no"), 0u);
}

TEST_F(Store, AnAbsentValueIsNotFoundAndZeroOrEmpty) {
  const auto store = Open();
  bool found = true;
  EXPECT_EQ(store->GetStringValue("n", found), "");
  EXPECT_FALSE(found);
  EXPECT_EQ(store->GetIntegerValue("n", found = true), 0u);
  EXPECT_FALSE(found);
  EXPECT_FALSE(store->GetBooleanValue("n", found = true));
  EXPECT_FALSE(found);
  EXPECT_TRUE(store->GetBinaryValue("n", 10, found = true).empty());
  EXPECT_FALSE(found);
}

TEST_F(Store, AValueOfAnotherTypeCountsAsAbsent) {
  Write("[s]\n\"text\"=\"1\"\n\"number\"=dword:1\n\"bytes\"=hex:01\n");
  const auto store = Open("s", false);
  bool found = true;
  EXPECT_EQ(Int(*store, "text"), 0xDEADu);
  EXPECT_EQ(Int(*store, "bytes"), 0xDEADu);
  store->GetStringValue("number", found);
  EXPECT_FALSE(found);
  store->GetBinaryValue("number", 10, found = true);
  EXPECT_FALSE(found);
}

TEST_F(Store, RemovesAValueThatIsThere) {
  const auto store = Open();
  SetInt(*store, "n", 1);
  EXPECT_TRUE(store->RemoveValue("n"));
  EXPECT_FALSE(store->RemoveValue("n"));
  EXPECT_EQ(Text(), "[a\\b]\n");
}

TEST_F(Store, RemovesASectionWithAllBelowIt) {
  Write("[a]\n\"n\"=dword:1\n[a\\b\\c]\n\"n\"=dword:1\n");
  const auto store = Open("a", false);
  EXPECT_TRUE(store->RemoveSection("b"));
  EXPECT_FALSE(store->RemoveSection("b"));
  EXPECT_EQ(Text(), "[a]\n\"n\"=dword:1\n");
}

TEST_F(Store, EnumeratesValuesWithTheirTypesAndSections) {
  Write("[a]\n\"t\"=\"x\"\n\"n\"=dword:1\n\"b\"=hex:00\n[a\\y]\n[a\\x\\z]\n");
  const auto store = Open("a", false);
  std::vector<std::pair<std::string, int>> values;
  std::string name;
  int type = -1;
  for (int i = 0; store->EnumerateValues(i, name, type); ++i) values.emplace_back(name, type);
  EXPECT_THAT(values, ElementsAre(std::pair("b", 2), std::pair("n", 1), std::pair("t", 0)));
  std::vector<std::string> sections;
  for (int i = 0; store->EnumerateSections(i, name); ++i) sections.push_back(name);
  EXPECT_THAT(sections, ElementsAre("x", "y"));
  EXPECT_FALSE(store->EnumerateValues(-1, name, type));
}

TEST_F(Store, ExportsAllSections) {
  Write("; comment\n[b]\n\"n\"=dword:1\n[a]\n\"t\"=\"x\"\n");
  const auto store = Open("b", false);
  const std::string exported = Path("exported");
  EXPECT_TRUE(store->Export(exported));
  std::ifstream stream(exported);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}),
            "[a]\n\"t\"=\"x\"\n[b]\n\"n\"=dword:00000001\n");
}

TEST_F(Store, NamesThatTheFileCantHoldAreRefused) {
  const auto store = Open();
  for (const std::string& name : {std::string("a\"b"), std::string("a\nb"), std::string("a\\b"),
                                  std::string("[a"), std::string(256, 'n')}) {
    EXPECT_FALSE(SetInt(*store, name.c_str(), 1)) << name;
  }
  EXPECT_EQ(Text(), "[a\\b]\n");
}

TEST_F(Store, TwoObjectsOnOneFileDontOverwriteEachOther) {
  const auto first = Open("a");
  const auto second = Open("b");
  EXPECT_TRUE(SetInt(*first, "x", 1));
  EXPECT_TRUE(SetInt(*second, "y", 2));
  EXPECT_TRUE(SetInt(*first, "z", 3));
  EXPECT_EQ(Text(),
            "[a]\n\"x\"=dword:00000001\n\"z\"=dword:00000003\n\n[b]\n\"y\"=dword:00000002\n");
}

TEST_F(Store, AnotherObjectsWriteCountsAtOnce) {
  const auto reader = Open();
  const auto writer = Open();
  EXPECT_EQ(Int(*reader, "n"), 0xDEADu);
  SetInt(*writer, "n", 1);
  EXPECT_EQ(Int(*reader, "n"), 1u);
}

TEST_F(Store, ManyObjectsWritingAtOnceLoseNothing) {
  constexpr unsigned kThreads = 4;
  constexpr unsigned kWrites = 10;
  Open();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const auto store = Open();
      for (unsigned i = 0; i < kWrites; ++i) {
        EXPECT_TRUE(SetInt(*store, ("n" + std::to_string(t) + "-" + std::to_string(i)).c_str(), i));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto store = Open();
  std::string name;
  int type = 0;
  EXPECT_TRUE(store->EnumerateValues(kThreads * kWrites - 1, name, type));
}

TEST_F(Store, ObjectsOnAFileAndOnALinkToItWritingAtOnceLoseNothing) {
  std::filesystem::create_directory(folder_ / "links");
  const std::string link = Path("links/link.config");
  Write("[s]\n");
  std::filesystem::create_symlink(path_, link);
  constexpr unsigned kEach = 20;
  const auto write = [](const std::string& path, char letter) {
    ACE_XPlatform_Configuration store(kLocalMachine, path);
    EXPECT_TRUE(store.OpenSection("s", false));
    for (unsigned i = 0; i < kEach; ++i) {
      EXPECT_TRUE(SetInt(store, (letter + std::to_string(i)).c_str(), i));
    }
  };
  std::thread other(write, link, 'b');
  write(path_, 'a');
  other.join();
  const auto store = Open("s", false);
  for (unsigned i = 0; i < kEach; ++i) {
    EXPECT_EQ(Int(*store, ("a" + std::to_string(i)).c_str()), i);
    EXPECT_EQ(Int(*store, ("b" + std::to_string(i)).c_str()), i);
  }
}

TEST_F(Store, AWriteUnderALockThatItsCallerHoldsDoesNotWaitForIt) {
  const auto store = Open();
  const Platform::FileLock lock(path_);
  bool ok = false;
  store->SetIntegerValue("n", 1, ok, &lock);
  EXPECT_TRUE(ok);
  store->SetStringValue("s", "x", ok, &lock);
  EXPECT_TRUE(ok);
  EXPECT_EQ(Int(*store, "n"), 1u);
}

TEST_F(Store, AnEditCountsAtTheNextRead) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  EXPECT_EQ(Int(*store, "n"), 1u);
  Replace("[s]\n\"n\"=dword:2\n");
  EXPECT_EQ(Int(*store, "n"), 2u);
}

TEST_F(Store, AnEditInPlaceOfTheSameSizeInTheSameMomentCounts) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  const auto time = std::filesystem::last_write_time(path_);
  EXPECT_EQ(Int(*store, "n"), 1u);
  Write("[s]\n\"n\"=dword:2\n");
  std::filesystem::last_write_time(path_, time);
  EXPECT_EQ(Int(*store, "n"), 2u);
}

TEST_F(Store, AWriteKeepsAnEditThatWasNotReadYet) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  Replace("; edited\n[s]\n\"n\"=dword:5\n");
  EXPECT_TRUE(SetInt(*store, "m", 2));
  EXPECT_EQ(Text(), "; edited\n[s]\n\"n\"=dword:5\n\"m\"=dword:00000002\n");
  EXPECT_EQ(Int(*store, "n"), 5u);
}

TEST_F(Store, AnUnreadableFileLeavesTheValuesAndWarnsOnceWithTheLine) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  EXPECT_EQ(Int(*store, "n"), 1u);
  Replace("[s]\n\"n\"=dword:2\nbroken\n");
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(Int(*store, "n"), 1u);
  }
  EXPECT_EQ(log_.Lines().size(), 1u);
  EXPECT_TRUE(log_.Has(kWarning, "Line 3 of the configuration " + path_ +
                                     " cannot be read; the values read before stay in force\n"));
}

TEST_F(Store, AnUnreadableFileIsNeverOverwritten) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  Replace("broken\n");
  EXPECT_FALSE(SetInt(*store, "n", 2));
  EXPECT_EQ(Text(), "broken\n");
  ACE_XPlatform_Configuration other(kLocalMachine, path_);
  EXPECT_FALSE(other.OpenSection("s", true));
  EXPECT_EQ(Text(), "broken\n");
}

TEST_F(Store, AFileThatBecomesEmptyWhileItIsWrittenLeavesTheValues) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  Write("");
  EXPECT_EQ(Int(*store, "n"), 1u);
  EXPECT_FALSE(SetInt(*store, "m", 2)) << "half of an edit must not be all that is left of it";
  EXPECT_EQ(Text(), "");
  Write("[s]\n\"n\"=dword:3\n");
  EXPECT_EQ(Int(*store, "n"), 3u);
  EXPECT_TRUE(SetInt(*store, "m", 2));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(Store, AFileThatStaysEmptyLeavesTheValuesAndWarnsOnce) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  Write("");
  EXPECT_EQ(Int(*store, "n"), 1u);
  EXPECT_TRUE(log_.Lines().empty()) << "it may be written at this moment";
  const auto written = std::filesystem::last_write_time(path_);
  clock_.SetWall(std::chrono::duration_cast<std::chrono::seconds>(
                     std::chrono::file_clock::to_sys(written).time_since_epoch())
                     .count() +
                 2);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Int(*store, "n"), 1u);
  EXPECT_EQ(log_.Lines().size(), 1u);
  EXPECT_TRUE(log_.Has(kWarning, "The configuration " + path_ +
                                     " is empty; the values read before stay in force\n"));
}

TEST_F(Store, AnEmptyFileIsWrittenWhereNothingWasReadBefore) {
  Write("");
  const auto store = Open("s");
  EXPECT_TRUE(SetInt(*store, "n", 1));
  EXPECT_EQ(Text(), "[s]\n\"n\"=dword:00000001\n");
}

TEST_F(Store, ARepairedFileIsReadAndWrittenAgain) {
  Write("broken\n");
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  EXPECT_FALSE(store.OpenSection("s", true));
  Replace("[s]\n\"n\"=dword:3\n");
  EXPECT_TRUE(store.OpenSection("s", true));
  EXPECT_EQ(Int(store, "n"), 3u);
  EXPECT_TRUE(SetInt(store, "n", 4));
}

TEST_F(Store, AFileOverSixteenMegabytesIsRefused) {
  Write("[s]\n");
  std::filesystem::resize_file(path_, 16 * 1024 * 1024 + 1);
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  EXPECT_FALSE(store.OpenSection("s", true));
  EXPECT_TRUE(log_.Contains("Cannot read the configuration " + path_));
}

TEST_F(Store, AFolderInTheFilesPlaceIsRefused) {
  std::filesystem::create_directory(path_);
  ACE_XPlatform_Configuration store(kLocalMachine, path_);
  EXPECT_FALSE(store.OpenSection("s", true));
}

TEST_F(Store, AFileThatIsGoneLeavesTheValuesAndIsMadeAnewByAWrite) {
  Write("[s]\n\"n\"=dword:1\n");
  const auto store = Open("s", false);
  EXPECT_EQ(Int(*store, "n"), 1u);
  std::filesystem::remove(path_);
  clock_.Advance(milliseconds(100));
  EXPECT_EQ(Int(*store, "n"), 1u);
  EXPECT_TRUE(SetInt(*store, "m", 2));
  EXPECT_EQ(Text(), "[s]\n\"n\"=dword:1\n\"m\"=dword:00000002\n");
}

TEST_F(Store, AWriteKeepsPermissionsAndLeavesNothingBeside) {
  Write("[s]\n");
  ASSERT_TRUE(Platform::SetMode(path_, 0640));
  const auto store = Open("s", false);
  EXPECT_TRUE(SetInt(*store, "n", 1));
  EXPECT_EQ(Platform::ModeOf(path_), 0640u);
  EXPECT_THAT(Beside(), ElementsAre());
}

TEST_F(Store, ANewFileIsForItsOwnerAlone) {
  Open();
  EXPECT_EQ(Platform::ModeOf(path_), 0600u);
}

TEST_F(Store, AWriteOfTheSameValueLeavesTheFileAlone) {
  const auto store = Open();
  SetInt(*store, "n", 1);
  const auto version = Platform::VersionOf(path_);
  EXPECT_TRUE(SetInt(*store, "n", 1));
  EXPECT_EQ(Platform::VersionOf(path_), version);
}

TEST_F(Store, FlushTellsOnceOfWritesThatFailed) {
  Write("[s]\n");
  const auto store = Open("s", false);
  EXPECT_TRUE(store->Flush());
  Replace("broken\n");
  EXPECT_FALSE(SetInt(*store, "n", 1));
  EXPECT_FALSE(store->Flush());
  EXPECT_TRUE(store->Flush());
}

TEST_F(Store, AFailedWriteChangesNothingInMemory) {
  const auto store = Open();
  std::filesystem::remove_all(folder_);
  EXPECT_FALSE(SetInt(*store, "n", 1));
  EXPECT_EQ(Int(*store, "n"), 0xDEADu);
}

}  // namespace
}  // namespace MessageRouter
