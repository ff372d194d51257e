// The table while there is no memory: what it does is done whole or not at all.
#include <filesystem>
#include <new>
#include <optional>

#include "config/Configuration.h"
#include "fixture.h"
#include "support/AllocationFailure.h"
#include "support/NoDescriptors.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Each takes memory of its own.
const std::string kName = "a name that takes memory wherever it is copied";
const std::string kOther = "another name that takes memory wherever it is copied";

class Rows : public MessageRouter::FunctionClassBase {
 public:
  void operator()(std::string name, MessageRouter::RouterTableEntry& entry) override {
    // An entry that lost its name would answer to the wrong one.
    rows.push_back(name + (entry.IsParent() ? " (parent)" : entry.Name() == name ? "" : " (?)"));
  }
  std::vector<std::string> rows;
};

class TableShortageTest : public RoutingTest {
 protected:
  std::vector<std::string> Rows() {
    class Rows rows;
    table_.Scan(rows);
    return rows.rows;
  }
  // Runs `work` with one failure at the first place where it takes memory, then at the second, and
  // so on until there is none; `check` after each failure.
  template <class Work, class Check>
  void WithOneFailureEach(Work&& work, Check&& check) {
    std::size_t spared = 0;
    for (bool failed = true; failed; ++spared) {
      ASSERT_LT(spared, 1000u);
      try {
        const AllocationFailure failure(spared, 1);
        work();
        failed = AllocationFailure::Happened();
      } catch (const std::bad_alloc&) {
        check();
        if (HasFailure()) FAIL() << spared;
      }
    }
    EXPECT_GT(spared, 1u);
  }
};

TEST_F(TableShortageTest, AParentThatCannotBeRenamedKeepsItsName) {
  table_.AddParent("");
  table_.SetParentName(kName);
  WithOneFailureEach([this] { table_.SetParentName(kOther); },
                     [this] {
                       EXPECT_EQ(table_.Parent()->Name(), kName);
                       EXPECT_THAT(Rows(), ElementsAre(" (parent)", kName + " (parent)"));
                     });
  EXPECT_EQ(table_.Parent()->Name(), kOther);
  EXPECT_EQ(table_.Find(kOther), table_.Parent());
}

TEST_F(TableShortageTest, AParentThatCannotBeRenamedDisplacesNobody) {
  table_.AddParent("");
  Entry& client = AClient(kName);
  WithOneFailureEach([this] { table_.SetParentName(kName); },
                     [&] {
                       EXPECT_EQ(table_.Parent()->Name(), "");
                       EXPECT_EQ(table_.Find(kName), &client);
                       EXPECT_TRUE(client.IsRegistered());
                     });
  EXPECT_EQ(table_.Find(kName), table_.Parent());
}

TEST_F(TableShortageTest, AParentWhoseLockCannotBeTakenKeepsItsName) {
  table_.AddParent("");
  // The table's, and that with which the parent is asked for its name.
  ThreadHelper::FailLocksAfter(2, 1);
  table_.SetParentName("boss");
  EXPECT_EQ(table_.Parent()->Name(), "");
  EXPECT_THAT(Rows(), ElementsAre(" (parent)"));
}

TEST_F(TableShortageTest, AFreeEntryThatCannotBeTakenOverStaysWhatItIs) {
  Entry& free = AClient(kName);
  Enqueue(free, AStoredEnvelope("1.msg"));
  Enqueue(free, AStoredEnvelope("2.msg"));
  table_.Unregister(kName);
  const MessageRouter::LogonGeneration before = free.Generation();
  WithOneFailureEach([this] { table_.AddCertificationEntry(kOther); },
                     [&] {
                       EXPECT_THAT(Rows(), ElementsAre(kName));
                       EXPECT_EQ(free.Generation(), before);
                       EXPECT_FALSE(free.IsLoggedOn());
                       EXPECT_EQ(routing_.RouteQueueSize(), 0u);
                       EXPECT_TRUE(free.HasEnvelopes());
                     });
  EXPECT_THAT(Rows(), ElementsAre(kOther));
  EXPECT_EQ(free.Name(), kOther);
  EXPECT_FALSE(free.HasEnvelopes());
}

TEST_F(TableShortageTest, AnEntryThatCannotBeMadeLeavesNoRow) {
  WithOneFailureEach([this] { table_.AddCertificationEntry(kName); },
                     [this] { EXPECT_THAT(Rows(), IsEmpty()); });
  WithOneFailureEach([this] { table_.Register(kOther, false); },
                     [this] { EXPECT_THAT(Rows(), ElementsAre(kName)); });
  EXPECT_THAT(Rows(), UnorderedElementsAre(kName, kOther));
}

TEST_F(TableShortageTest, WhatADisplacedPeerHeldIsRoutedAnewAsFarAsThereIsMemory) {
  table_.AddParent("");
  Entry& client = AClient("boss");
  for (int i = 0; i < 3; ++i) Enqueue(client, AStoredEnvelope(std::to_string(i) + ".msg"));
  unsigned routed = 0;
  table_.SetReroute([&](Envelope) {
    if (++routed == 1) throw std::bad_alloc();
  });
  EXPECT_NO_THROW(table_.SetParentName("boss"));
  EXPECT_EQ(routed, 3u);
}

// The end of a cycle

class ClearedInAShortageTest : public TableShortageTest {
 protected:
  // A table with peers is emptied, with memory for so much.
  void Clear(std::size_t successes) {
    table_.AddParent("");
    Entry& client = AClient(kName);
    LogonPushed(client);
    Enqueue(client, AStoredEnvelope("1.msg"));
    Enqueue(client, AStoredEnvelope("2.msg"));
    Entry& router = ARouter(kOther);
    LogonPolled(router);
    {
      const AllocationFailure failure(successes);
      table_.Clear();
      EXPECT_TRUE(AllocationFailure::Happened());
    }
    for (const Entry* entry : {&client, &router}) {
      EXPECT_FALSE(entry->IsRegistered());
      EXPECT_FALSE(entry->IsLoggedOn());
      EXPECT_TRUE(CORBA::is_nil(entry->References().messageConsumer));
      EXPECT_TRUE(CORBA::is_nil(entry->References().routerSupplier));
    }
    EXPECT_EQ(table_.Parent(), nullptr);
    EXPECT_THAT(Rows(), IsEmpty());
    EXPECT_THROW(table_.Register("late", false), BrelixMessaging::Rejected);
    EXPECT_TRUE(FileExists("1.msg"));
    EXPECT_TRUE(FileExists("2.msg"));
    WriteTableText("next.0..\n");
    table_.ReadTable(false);
    EXPECT_THAT(Rows(), ElementsAre("next"));
  }
};

TEST_F(ClearedInAShortageTest, ATableIsEmptiedWhateverMemoryThereIs) {
  for (const std::size_t successes : {0u, 1u, 2u}) {
    SCOPED_TRACE(successes);
    Clear(successes);
    table_.Clear();
    table_.FreeDetached();
    WriteTableText("");
    table_.ReadTable(false);
  }
}

TEST_F(ClearedInAShortageTest, ATableIsEmptiedThoughFormerEntriesAreLeft) {
  AClient("former");
  table_.Clear();
  table_.ReadTable(false);
  Clear(0);
}

// The file

TEST_F(TableShortageTest, AFileForWhichThereIsADescriptorTooFewIsReadAMomentLater) {
  const std::string text = kName + ".0..\n";
  WriteTableText(text);
  unsigned pauses = 0;
  {
    std::optional<NoDescriptors> none(std::in_place);
    table_.ReadTable(true, [&] {
      if (++pauses == 2) none.reset();
    });
  }
  EXPECT_EQ(pauses, 2u);
  EXPECT_EQ(log_.Count("Trying again to read the router table file: "), 2u);
  EXPECT_THAT(Rows(), UnorderedElementsAre(" (parent)", kName));
  EXPECT_EQ(TableText(), text);
  EXPECT_FALSE(std::filesystem::exists(TablePath() + ".bad"));
}

TEST_F(TableShortageTest, AFileForWhichThereIsNoDescriptorForGoodIsSetAsideAndTheTableIsEmpty) {
  WriteTableText(kName + ".0..\n");
  unsigned pauses = 0;
  {
    const NoDescriptors none;
    table_.ReadTable(true, [&] { ++pauses; });
  }
  EXPECT_EQ(pauses, 2u);
  EXPECT_THAT(Rows(), ElementsAre(" (parent)"));
  EXPECT_TRUE(std::filesystem::exists(TablePath() + ".bad"));
  table_.WriteTable(true);
  EXPECT_EQ(TableText(), "");
}

TEST_F(TableShortageTest, AFileThatNoTimeMakesReadableIsNotWaitedFor) {
  std::filesystem::create_directory(TablePath());
  unsigned pauses = 0;
  table_.ReadTable(true, [&] { ++pauses; });
  EXPECT_EQ(pauses, 0u);
  EXPECT_THAT(Rows(), ElementsAre(" (parent)"));
}

TEST_F(TableShortageTest, AFileThatIsReadWithoutMemoryIsNotDamagedAndIsReadAnotherTime) {
  const std::string text = kName + ".0..\n" + kOther + ".1..\n";
  WriteTableText(text);
  WithOneFailureEach(
      [this] {
        table_.Clear();
        table_.ReadTable(true);
      },
      [&] {
        EXPECT_FALSE(log_.Contains("is damaged"));
        EXPECT_EQ(TableText(), text);
        EXPECT_FALSE(std::filesystem::exists(TablePath() + ".bad"));
      });
  EXPECT_THAT(Rows(), UnorderedElementsAre(" (parent)", kName, kOther));
}

}  // namespace
}  // namespace TestSupport
