// A hash database on a disk that fails, and one whose files are damaged.
#include <cerrno>
#include <functional>

#include "hash_database_fixture.h"

namespace MessageRouter {
namespace {

class DamagedHashDatabase : public HashDatabaseTest {
 protected:
  // Page 0 is full: one pair more splits it. Gives the keys.
  std::vector<std::string> FillPage() {
    std::vector<std::string> keys;
    for (int i = 0; i < 10; ++i) {
      keys.push_back("key" + std::to_string(i));
      EXPECT_EQ(Store(keys.back(), std::string(90, 'v')), 0);
    }
    return keys;
  }
};

// Failing disks

TEST_F(DamagedHashDatabase, AFailedStoreIntoAPageLosesNothingAndIsNotFound) {
  FailWritesAfter(0);
  EXPECT_EQ(Store("a", "1"), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(sdbm_error(Get()), ENOSPC);
  AllowWrites();
  EXPECT_EQ(Fetch("a"), "(absent)");
  EXPECT_EQ(Store("b", "1"), 0);
  FailWritesAfter(0);
  EXPECT_EQ(Store("b", "2"), -1);
  EXPECT_EQ(sdbm_delete(Get(), "b"), -1);
  AllowWrites();
  EXPECT_EQ(Fetch("b"), "1");
}

TEST_F(DamagedHashDatabase, ASplitThatFailsAtAnyOfItsWritesLosesNoPair) {
  const std::vector<std::string> keys = FillPage();
  const std::string full = Read("map.pag");
  ASSERT_EQ(full.size(), PBLKSIZ);
  // The new pair belongs to the old page, or to the new one.
  for (const char* key : {"b", "a"}) {
    bool stored = false;
    for (int writes = 0; !stored; ++writes) {
      Write("map.pag", full);
      Write("map.dir", "");
      Open();
      FailWritesAfter(writes);
      stored = Store(key, std::string(90, 'v')) == 0;
      AllowWrites();
      for (int i = 0; i < 2; ++i) {
        for (const std::string& old : keys) EXPECT_NE(Fetch(old), "(absent)") << old << writes;
        EXPECT_EQ(Fetch(key) != "(absent)", stored) << key << writes;
        Open();
      }
    }
    EXPECT_EQ(Read("map.dir")[0], 1);
  }
}

TEST_F(DamagedHashDatabase, AReplacementThatSplitsAndFailsAtAnyOfItsWritesLosesNoPair) {
  const std::vector<std::string> keys = FillPage();
  const std::string full = Read("map.pag");
  ASSERT_EQ(full.size(), PBLKSIZ);
  // One that stays in the old page, and one that goes to the new one.
  for (const char* key : {"key0", "key1"}) {
    bool stored = false;
    for (int writes = 0; !stored; ++writes) {
      Write("map.pag", full);
      Write("map.dir", "");
      Open();
      FailWritesAfter(writes);
      stored = Store(key, std::string(300, 'w')) == 0;
      AllowWrites();
      for (int i = 0; i < 2; ++i) {
        for (const std::string& old : keys) {
          const bool replaced = stored && old == key;
          EXPECT_EQ(Fetch(old), replaced ? std::string(300, 'w') : std::string(90, 'v'))
              << old << writes;
        }
        Open();
      }
    }
    EXPECT_EQ(Read("map.dir")[0], 1);
    EXPECT_EQ(Keys().size(), keys.size());
  }
}

TEST_F(DamagedHashDatabase, AReplacementThatNoSplitHasRoomForLeavesTheOldPair) {
  const std::vector<std::string> keys = OfOneHash();
  for (int i = 0; i < 2; ++i) ASSERT_EQ(Store(keys[i], std::string(400, 'v')), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Store(keys[0], std::string(700, 'w')), -1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(errno, EFBIG);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Fetch(keys[i]), std::string(400, 'v'));
}

TEST_F(DamagedHashDatabase, AReadThatFailsFailsEveryOperationOnceAndHarmsNothing) {
  std::vector<std::string> keys;
  for (int i = 0; i < 200; ++i) {
    keys.push_back("key" + std::to_string(i));
    ASSERT_EQ(Store(keys.back(), std::string(90, 'v')), 0);
  }
  const std::string pages = Read("map.pag");
  const std::string directory = Read("map.dir");
  const std::function<bool()> operations[] = {[&] { return Fetch("key1") != "(absent)"; },
                                              [&] { return Store("key1", "new") == 0; },
                                              [&] { return sdbm_delete(Get(), "key1") == 0; }};
  for (const auto& operation : operations) {
    // That of a block of the directory, and that of a page.
    for (int read = 0; read < 2; ++read) {
      Open();
      FailReadAfter(read);
      EXPECT_FALSE(operation()) << read;
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(sdbm_error(Get()), EIO);
      EXPECT_EQ(Read("map.pag"), pages);
      for (const std::string& key : keys) EXPECT_EQ(Fetch(key), std::string(90, 'v')) << key;
    }
  }
  EXPECT_EQ(Store("another", "1"), 0);
  EXPECT_EQ(Read("map.dir"), directory);
}

TEST_F(DamagedHashDatabase, AReadThatFailsWithinSplitsLosesNoPair) {
  const std::vector<std::string> keys = PartedByBit(17);
  const std::string value(450, 'v');
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) Store(keys[i], value);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(DirectoryBits(), 10);
  database_.reset();
  std::filesystem::copy_file("map.pag", "old.pag");
  std::filesystem::copy_file("map.dir", "old.dir");
  int failures = 0;
  for (bool stored = false; !stored; failures += stored ? 0 : 1) {
    database_.reset();
    for (const char* ending : {".pag", ".dir"}) {
      std::filesystem::copy_file(std::string("old") + ending, std::string("map") + ending,
                                 std::filesystem::copy_options::overwrite_existing);
    }
    Open();
    FailReadAfter(failures);
    stored = Store(keys[2], value) == 0;
    FailReadAfter(-1);
    EXPECT_EQ(sdbm_error(Get()), stored ? 0 : EIO);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Fetch(keys[i]), value) << failures;
    EXPECT_EQ(Fetch(keys[2]), stored ? value : "(absent)");
    EXPECT_EQ(Store(keys[2], value), 0);
    EXPECT_GE(DirectoryBits(), 18);
  }
  // The directory's first block and the page, then the directory's next blocks down the tree.
  EXPECT_GT(failures, 2);
}

TEST_F(DamagedHashDatabase, AWalkPassesOverAPageThatCannotBeReadAndEndsWhereTheSearchFails) {
  for (int i = 0; i < 200; ++i) Store("key" + std::to_string(i), std::string(90, 'v'));
  Open();
  const std::size_t all = Keys().size();
  ASSERT_EQ(all, 200u);
  FailReadAfter(1);
  const std::size_t some = Keys().size();
  EXPECT_LT(some, all);
  EXPECT_GT(some, all / 2);
  EXPECT_EQ(sdbm_error(Get()), EIO);
  Open();
  FailSearch(ENOMEM);
  EXPECT_EQ(sdbm_firstkey(Get()), std::nullopt);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(sdbm_error(Get()), ENOMEM);
  EXPECT_EQ(Keys().size(), all);
}

// Damaged files

TEST_F(DamagedHashDatabase, AKeyThatAPageHasTwiceIsDeletedOrReplacedAltogether) {
  const auto withKeyTwice = [&] {
    Open(kReadWrite | kCreate | kTruncate);
    HashPage page;
    for (const char* key : {"a", "twice", "b", "twice"}) page.Add(key, "old");
    Write("map.pag", std::string(page.Bytes(), PBLKSIZ));
    Open();
  };
  withKeyTwice();
  EXPECT_EQ(sdbm_delete(Get(), "twice"), 0);
  EXPECT_EQ(Fetch("twice"), "(absent)");
  EXPECT_THAT(Keys(), testing::ElementsAre("a", "b"));
  withKeyTwice();
  EXPECT_EQ(Store("twice", "new"), 0);
  EXPECT_THAT(Keys(), testing::ElementsAre("a", "b", "twice"));
}

TEST_F(DamagedHashDatabase, ADamagedPageIsAFailureForEveryOperation) {
  Store("a", "1");
  Write("map.pag", std::string(PBLKSIZ, '\x7f'));
  Open();
  EXPECT_EQ(Fetch("a"), "(absent)");
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(Store("a", "2"), -1);
  EXPECT_EQ(sdbm_delete(Get(), "a"), -1);
  EXPECT_EQ(sdbm_firstkey(Get()), std::nullopt);
  EXPECT_EQ(sdbm_nextkey(Get()), std::nullopt);
  EXPECT_EQ(sdbm_error(Get()), EIO);
  EXPECT_EQ(Read("map.pag"), std::string(PBLKSIZ, '\x7f'));
}

TEST_F(DamagedHashDatabase, TheOtherPagesOfADamagedFileStayInUse) {
  for (int i = 0; i < 500; ++i) Store("key" + std::to_string(i), "v");
  std::string pages = Read("map.pag");
  pages.replace(0, 2, "\xff\xff");
  Write("map.pag", pages);
  Open();
  unsigned found = 0;
  for (int i = 0; i < 500; ++i) found += Fetch("key" + std::to_string(i)) == "v" ? 1 : 0;
  EXPECT_GT(found, 300u);
  EXPECT_LT(found, 500u);
}

TEST_F(DamagedHashDatabase, AWalkPassesOverDamagedPages) {
  for (int i = 0; i < 500; ++i) Store("key" + std::to_string(i), "v");
  const std::size_t all = Keys().size();
  std::string pages = Read("map.pag");
  for (const std::size_t damaged : {std::size_t{0}, pages.size() / PBLKSIZ - 1}) {
    pages.replace(damaged * PBLKSIZ, 2, "\xff\xff");
  }
  Write("map.pag", pages);
  Open();
  const std::vector<std::string> found = Keys();
  EXPECT_GT(found.size(), 300u);
  EXPECT_LT(found.size(), all);
  for (const std::string& key : found) EXPECT_EQ(Fetch(key), "v");
  EXPECT_EQ(sdbm_error(Get()), EIO);
}

TEST_F(DamagedHashDatabase, AFileThatEndsInThePageIsDamaged) {
  for (int i = 0; i < 500; ++i) Store("key" + std::to_string(i), "v");
  std::filesystem::resize_file("map.pag", std::filesystem::file_size("map.pag") - 1);
  Open();
  const std::size_t keys = Keys().size();
  EXPECT_LT(keys, 500u);
  EXPECT_GT(keys, 400u);
  EXPECT_EQ(sdbm_error(Get()), EIO);
}

TEST_F(DamagedHashDatabase, AReadPastTheEndLeavesThePageInMemoryAsItIs) {
  // As after a crash: the root has been split, the page on the right never written. The hash of "b"
  // is even, that of "a" odd.
  ASSERT_EQ(Store("b", "1"), 0);
  Write("map.dir", "\x01" + std::string(DBLKSIZ - 1, '\0'));
  Open();
  EXPECT_EQ(Fetch("b"), "1");
  EXPECT_EQ(Fetch("a"), "(absent)");
  EXPECT_EQ(Store("a", "2"), 0);
  EXPECT_EQ(Fetch("a"), "2");
  EXPECT_EQ(Fetch("b"), "1");
  EXPECT_EQ(sdbm_error(Get()), 0);
}

TEST_F(DamagedHashDatabase, ADirectoryOfAllOnesEndsEveryDescent) {
  Store("a", "1");
  for (const std::size_t size : {std::size_t{1}, std::size_t{100}, DBLKSIZ, 64 * DBLKSIZ}) {
    Write("map.dir", std::string(size, '\xff'));
    Open();
    Fetch("a");
    Store("b", "2");
    EXPECT_EQ(Fetch("b"), "2") << size;
    sdbm_delete(Get(), "a");
    EXPECT_GE(Keys().size(), 1u);
  }
}

TEST_F(DamagedHashDatabase, ADirectoryOfAnySizeIsRead) {
  Store("a", "1");
  database_.reset();
  std::filesystem::resize_file("map.dir", std::uintmax_t{1} << 36);
  Open();
  ASSERT_NE(Get(), nullptr);
  EXPECT_EQ(Fetch("a"), "1");
  EXPECT_EQ(Store("b", "2"), 0);
}

TEST_F(DamagedHashDatabase, ManyKindsOfRubbishEndInResultsOrFailures) {
  std::mt19937 random(17);
  for (int round = 0; round < 300; ++round) {
    std::string pages((random() % 4) * PBLKSIZ + random() % 3, '\0');
    for (char& c : pages) c = random() % 3 == 0 ? static_cast<char>(random()) : '\0';
    for (std::size_t page = 0; page + PBLKSIZ <= pages.size(); page += PBLKSIZ) {
      if (random() % 2 == 0) pages.replace(page, 2, std::string(2, '\0'));
    }
    std::string directory(random() % 20, '\0');
    for (char& c : directory) c = static_cast<char>(random());
    Write("map.pag", pages);
    Write("map.dir", directory);
    Open();
    ASSERT_NE(Get(), nullptr);
    for (const char* key : {"a", "b", "cc"}) {
      Fetch(key);
      if (Store(key, "v") == 0) {
        EXPECT_EQ(Fetch(key), "v");
      }
      sdbm_delete(Get(), key);
    }
    Keys();
  }
}

}  // namespace
}  // namespace MessageRouter
