#include "routing/HashDatabase.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "hash_database_fixture.h"

namespace MessageRouter {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr unsigned kOpen = kReadWrite | kCreate;

// Opening

TEST_F(HashDatabaseTest, OpeningMakesTwoFilesForTheOwnerAlone) {
  ASSERT_NE(Get(), nullptr);
  for (const char* file : {"map.dir", "map.pag"}) {
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600)) << file;
    EXPECT_EQ(std::filesystem::file_size(file), 0u);
  }
}

TEST_F(HashDatabaseTest, OpeningWhatIsNotThereFailsWithoutTheFlagToMakeIt) {
  EXPECT_EQ(sdbm_open("other", kReadWrite, 0600), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(std::filesystem::exists("other.pag"));
}

TEST_F(HashDatabaseTest, OpeningFailsIfEitherFileCannotBeOpened) {
  for (const char* file : {"broken.dir", "broken.pag"}) {
    std::filesystem::create_directory(file);
    EXPECT_EQ(sdbm_open("broken", kOpen, 0600), nullptr) << file;
    EXPECT_EQ(errno, EISDIR);
    std::filesystem::remove_all("broken.dir");
    std::filesystem::remove_all("broken.pag");
  }
}

TEST_F(HashDatabaseTest, AWriteOnlyFlagBecomesReadWrite) {
  Open(kWriteOnly);
  EXPECT_EQ(Store("a", "1"), 0);
  EXPECT_EQ(Fetch("a"), "1");
}

TEST_F(HashDatabaseTest, ATruncatingFlagBeginsAnew) {
  Store("a", "1");
  Open(kOpen | kTruncate);
  EXPECT_EQ(Fetch("a"), "(absent)");
}

TEST_F(HashDatabaseTest, AHandleThatOnlyReadsRefusesChanges) {
  Store("a", "1");
  Open(kReadOnly);
  EXPECT_EQ(Fetch("a"), "1");
  EXPECT_EQ(Store("a", "2"), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(sdbm_delete(Get(), "a"), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(Fetch("a"), "1");
  EXPECT_EQ(sdbm_error(Get()), 0);
}

TEST_F(HashDatabaseTest, ANullHandleAndAnEmptyKeyAreInvalid) {
  const auto refused = [](bool result) {
    const bool invalid = errno == EINVAL;
    errno = 0;
    return result && invalid;
  };
  EXPECT_TRUE(refused(!sdbm_fetch(nullptr, "a")));
  EXPECT_TRUE(refused(sdbm_store(nullptr, "a", "1", kReplace) == -1));
  EXPECT_TRUE(refused(sdbm_delete(nullptr, "a") == -1));
  EXPECT_TRUE(refused(!sdbm_firstkey(nullptr)));
  EXPECT_TRUE(refused(!sdbm_nextkey(nullptr)));
  EXPECT_TRUE(refused(!sdbm_fetch(Get(), "")));
  EXPECT_TRUE(refused(sdbm_store(Get(), "", "1", kReplace) == -1));
  EXPECT_TRUE(refused(sdbm_delete(Get(), "") == -1));
  EXPECT_EQ(sdbm_error(Get()), 0);
  EXPECT_TRUE(refused(sdbm_error(nullptr) == EINVAL));
  sdbm_close(nullptr);
  EXPECT_TRUE(refused(true));
  sdbm_limit(nullptr, 1);
  EXPECT_TRUE(refused(true));
}

// Closing

bool IsOpen(const std::string& name) {
  for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the iterator's own
    const std::string file = std::filesystem::read_symlink(descriptor, gone).string();
    if (file.ends_with("/" + name)) return true;
  }
  return false;
}

TEST_F(HashDatabaseTest, ClosingTakesTheHandleAndClosesBothFiles) {
  Store("a", "1");
  ASSERT_TRUE(IsOpen("map.dir") && IsOpen("map.pag"));
  sdbm_close(std::move(database_));
  EXPECT_EQ(Get(), nullptr);
  EXPECT_FALSE(IsOpen("map.dir"));
  EXPECT_FALSE(IsOpen("map.pag"));
  Open();
  EXPECT_EQ(Fetch("a"), "1");
}

// Pairs

TEST_F(HashDatabaseTest, AWalkGoesPageByPageAndWithinAPagePairByPair) {
  for (const char* key : {"d", "b", "c", "a"}) Store(key, "v");
  EXPECT_THAT(Keys(), testing::ElementsAre("d", "b", "c", "a"));
  // Two more than page 0 holds: it splits by the lowest bit of the hash.
  std::vector<std::string> even = {"d", "b"};
  std::vector<std::string> odd = {"c", "a"};
  for (const char* key : {"g", "f", "e", "h"}) {
    (HashOfKey(key) % 2 == 0 ? even : odd).emplace_back(key);
    ASSERT_EQ(Store(key, std::string(300, 'v')), 0);
  }
  ASSERT_EQ(std::filesystem::file_size("map.pag"), 2 * PBLKSIZ);
  even.insert(even.end(), odd.begin(), odd.end());
  EXPECT_EQ(Keys(), even);
}

TEST_F(HashDatabaseTest, GivesBackWhatWasStoredAlsoAfterReopening) {
  EXPECT_EQ(Store("a", "1"), 0);
  EXPECT_EQ(Store("empty", ""), 0);
  EXPECT_EQ(Store(std::string("\0\xff", 2), std::string("\n\0", 2)), 0);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Fetch("a"), "1");
    EXPECT_EQ(Fetch("empty"), "");
    EXPECT_EQ(Fetch(std::string("\0\xff", 2)), std::string("\n\0", 2));
    EXPECT_EQ(Fetch("A"), "(absent)");
    Open();
  }
}

TEST_F(HashDatabaseTest, StoringReplacesOnlyIfAskedTo) {
  Store("a", "1");
  EXPECT_EQ(sdbm_store(Get(), "a", "2", kInsert), 1);
  EXPECT_EQ(Fetch("a"), "1");
  EXPECT_EQ(sdbm_store(Get(), "a", "longer", kReplace), 0);
  EXPECT_EQ(Fetch("a"), "longer");
  EXPECT_THAT(Keys(), UnorderedElementsAre("a"));
  EXPECT_EQ(sdbm_store(Get(), "b", "3", kInsert), 0);
}

TEST_F(HashDatabaseTest, DeletingTellsWhetherTheKeyWasThere) {
  Store("a", "1");
  EXPECT_EQ(sdbm_delete(Get(), "a"), 0);
  EXPECT_EQ(sdbm_delete(Get(), "a"), -1);
  EXPECT_EQ(Fetch("a"), "(absent)");
  EXPECT_EQ(sdbm_error(Get()), 0);
}

TEST_F(HashDatabaseTest, APairOf1008BytesWorksAndOneOf1009FailsAtOnce) {
  const std::string key(8, 'k');
  EXPECT_EQ(Store(key, std::string(1000, 'v')), 0);
  EXPECT_EQ(Fetch(key), std::string(1000, 'v'));
  EXPECT_EQ(Store("another", std::string(1002, 'v')), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(Store(std::string(1009, 'k'), ""), -1);
  EXPECT_EQ(sdbm_error(Get()), 0);
  EXPECT_THAT(Keys(), UnorderedElementsAre(key));
}

TEST_F(HashDatabaseTest, WithAnEmptyDirectoryAllKeysFallIntoPage0UntilTheFirstSplit) {
  for (int i = 0; i < 20; ++i) Store("key" + std::to_string(i), "v");
  EXPECT_EQ(std::filesystem::file_size("map.pag"), PBLKSIZ);
  EXPECT_EQ(std::filesystem::file_size("map.dir"), 0u);
  for (int i = 20; i < 200; ++i) Store("key" + std::to_string(i), "v");
  EXPECT_GT(std::filesystem::file_size("map.pag"), PBLKSIZ);
  EXPECT_EQ(std::filesystem::file_size("map.dir"), DBLKSIZ);
  EXPECT_EQ(Read("map.dir")[0] & 1, 1);
}

TEST_F(HashDatabaseTest, ThousandsOfPairsSurviveSplitsDeletionsAndReopening) {
  std::map<std::string, std::string> expected;
  std::mt19937 random(3);
  for (int i = 0; i < 20000; ++i) {
    const std::string key = "router" + std::to_string(random() % 5000);
    if (random() % 4 == 0) {
      EXPECT_EQ(sdbm_delete(Get(), key), expected.erase(key) == 1 ? 0 : -1);
    } else {
      const std::string value(random() % 40, 'v');
      EXPECT_EQ(Store(key, value), 0);
      expected[key] = value;
    }
  }
  Open();
  for (const auto& [key, value] : expected) EXPECT_EQ(Fetch(key), value);
  const std::vector<std::string> keys = Keys();
  EXPECT_EQ(keys.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), expected.size());
  EXPECT_EQ(sdbm_error(Get()), 0);
}

TEST_F(HashDatabaseTest, AWalkOfAnEmptyDatabaseEndsAtOnce) {
  EXPECT_THAT(Keys(), IsEmpty());
  EXPECT_EQ(sdbm_nextkey(Get()), std::nullopt);
}

TEST_F(HashDatabaseTest, AWalkGoesOnAfterAFetchFromAnotherPage) {
  for (int i = 0; i < 1000; ++i) Store("key" + std::to_string(i), "v");
  std::set<std::string> keys;
  for (auto key = sdbm_firstkey(Get()); key; key = sdbm_nextkey(Get())) {
    EXPECT_TRUE(keys.emplace(*key).second);
    Fetch("key" + std::to_string(keys.size()));
  }
  EXPECT_EQ(keys.size(), 1000u);
}

TEST_F(HashDatabaseTest, ALookupInThePageInMemoryNeedsNoRead) {
  Store("a", "1");
  std::filesystem::resize_file("map.pag", 0);
  EXPECT_EQ(Fetch("a"), "1");
}

// The tree

TEST_F(HashDatabaseTest, ALeafDeepDownIsFoundAgainEvenWhereItsBitLiesBlocksBehindTheOthers) {
  // Ones all the way: each node is the right child of its parent, which is the fastest way up in
  // the numbers.
  std::vector<std::string> keys;
  std::mt19937 random(5);
  while (keys.size() < 40) {
    const std::string key = RandomKey(random);
    if ((HashOfKey(key) & 0xFFFF) == 0xFFFF) keys.push_back(key);
  }
  const std::string value(900, 'v');
  for (const std::string& key : keys) Store(key, value);
  std::vector<std::string> stored;
  for (const std::string& key : keys) {
    if (Fetch(key) == value) stored.push_back(key);
  }
  EXPECT_GT(stored.size(), 10u);
  EXPECT_GT(std::filesystem::file_size("map.dir"), 2 * DBLKSIZ);
  EXPECT_EQ(Keys().size(), stored.size());
  Open();
  for (const std::string& key : stored) EXPECT_EQ(Fetch(key), value) << key;
}

TEST_F(HashDatabaseTest, KeysOfOneHashFailAfterTenSplitsWithWordsOnStandardError) {
  const std::vector<std::string> keys = OfOneHash();
  const std::string value(450, 'v');
  EXPECT_EQ(Store(keys[0], value), 0);
  EXPECT_EQ(Store(keys[1], value), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Store(keys[2], value), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "sdbm: cannot insert after SPLTMAX attempts.\n");
  EXPECT_EQ(sdbm_error(Get()), EFBIG);
  EXPECT_EQ(Fetch(keys[0]), value);
  EXPECT_EQ(Fetch(keys[1]), value);
  EXPECT_EQ(Fetch(keys[2]), "(absent)");
  EXPECT_EQ(DirectoryBits(), 10);
}

TEST_F(HashDatabaseTest, WhatTheTenthSplitPartsIsStored) {
  const std::vector<std::string> keys = PartedByBit(9);
  const std::string value(450, 'v');
  testing::internal::CaptureStderr();
  for (const std::string& key : keys) EXPECT_EQ(Store(key, value), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(DirectoryBits(), 10);
  for (const std::string& key : keys) EXPECT_EQ(Fetch(key), value);
}

TEST_F(HashDatabaseTest, WhatOnlyTheEleventhSplitPartsIsStoredTheSecondTime) {
  const std::vector<std::string> keys = PartedByBit(10);
  const std::string value(450, 'v');
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Store(keys[i], value), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Store(keys[2], value), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "sdbm: cannot insert after SPLTMAX attempts.\n");
  EXPECT_EQ(DirectoryBits(), 10);
  EXPECT_EQ(Store(keys[2], value), 0);
  EXPECT_EQ(DirectoryBits(), 11);
  for (const std::string& key : keys) EXPECT_EQ(Fetch(key), value);
}

TEST_F(HashDatabaseTest, KeysOfOneHashStoredOverAndOverNeitherSplitForEverNorSlowAWalk) {
  const std::vector<std::string> keys = OfOneHash();
  const std::string value(450, 'v');
  Store(keys[0], value);
  Store(keys[1], value);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Store(keys[2], value), -1);
  const std::string text = testing::internal::GetCapturedStderr();
  // The fourth takes the last bits of the hash. From then on there is nothing to try.
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
  EXPECT_EQ(Fetch(keys[0]), value);
  EXPECT_EQ(Fetch(keys[1]), value);
  // The file reaches over terabytes or to the limit of the file system, with hardly anything in it.
  EXPECT_THAT(Keys(), UnorderedElementsAre(keys[0], keys[1]));
}

TEST_F(HashDatabaseTest, AFailedOpenLeavesNeitherFileOpen) {
  database_.reset();
  std::filesystem::remove("map.dir");
  std::filesystem::create_directory("map.dir");
  Open();
  EXPECT_EQ(Get(), nullptr);
  EXPECT_FALSE(IsOpen("map.pag"));
}

// The limit

TEST_F(HashDatabaseTest, AtItsLimitItSplitsNoMoreAndStoresOnlyWhereThereIsRoom) {
  constexpr std::uint64_t kLimit = 64 << 10;
  constexpr std::uint64_t kOneStore = SPLTMAX * 2 * DBLKSIZ;  // blocks of the file system
  sdbm_limit(Get(), kLimit);
  const std::string value(450, 'v');
  std::map<std::string, int> results;
  std::mt19937 random(19);
  const std::vector<std::string> ofOneHash = OfOneHash();
  testing::internal::CaptureStderr();
  for (int i = 0; i < 200; ++i) {
    const std::string prefix = RandomKey(random);
    for (const std::string& key : ofOneHash) results[prefix + key] = Store(prefix + key, value);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GE(Allocated(), kLimit);
  EXPECT_LE(Allocated(), kLimit + kOneStore);
  EXPECT_EQ(sdbm_error(Get()), EFBIG);
  int stored = 0;
  for (const auto& [key, result] : results) {
    EXPECT_EQ(Fetch(key), result == 0 ? value : "(absent)");
    stored += result == 0 ? 1 : 0;
    if (result != 0) continue;
    EXPECT_EQ(Store(key, "short"), 0);
    EXPECT_EQ(Fetch(key), "short");
  }
  EXPECT_GT(stored, 2);
}

TEST_F(HashDatabaseTest, ARefusalForTheLimitIsQuietAndSplitsNothing) {
  const std::vector<std::string> keys = OfOneHash();
  const std::string value(450, 'v');
  for (int i = 0; i < 2; ++i) ASSERT_EQ(Store(keys[i], value), 0);
  sdbm_limit(Get(), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Store(keys[2], value), -1);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(DirectoryBits(), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Fetch(keys[i]), value);
}

}  // namespace
}  // namespace MessageRouter
