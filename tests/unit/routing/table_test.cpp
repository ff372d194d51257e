#include <thread>

#include "config/Configuration.h"
#include "fixture.h"
#include "routing/FindFreeEntries.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using BrelixMessaging::AlreadyRegistered;
using BrelixMessaging::NotRegistered;
using BrelixMessaging::Rejected;
using testing::ElementsAre;
using testing::IsEmpty;

class TableTest : public RoutingTest {
 protected:
  // An unregistered entry in use.
  Entry& Certified(const std::string& name) {
    table_.AddCertificationEntry(name);
    Entry* entry = table_.Find(name);
    if (entry == nullptr) throw std::runtime_error("no entry for " + name);
    entry->LogonCertification(name);
    return *entry;
  }
};

class Names : public MessageRouter::FunctionClassBase {
 public:
  void operator()(std::string name, MessageRouter::RouterTableEntry&) override {
    names.push_back(std::move(name));
  }
  std::vector<std::string> names;
};

TEST_F(TableTest, ARegisteredNameCannotBeRegisteredAgain) {
  AClient("agent");
  EXPECT_THROW(table_.Register("agent", true), AlreadyRegistered);
  EXPECT_FALSE(table_.Find("agent")->IsRouter());
}

TEST_F(TableTest, AnUnregisteredEntryStaysAndCanBeRegisteredAgain) {
  Entry& entry = AClient("agent");
  table_.Unregister("agent");
  EXPECT_EQ(table_.Find("agent"), &entry);
  EXPECT_FALSE(entry.IsRegistered());
  EXPECT_THROW(table_.Unregister("agent"), NotRegistered);
  table_.Register("agent", true);
  EXPECT_EQ(table_.Find("agent"), &entry);
  EXPECT_TRUE(entry.IsRouter());
}

TEST_F(TableTest, UnregisteringAnUnknownNameIsRefused) {
  EXPECT_THROW(table_.Unregister("nobody"), NotRegistered);
}

TEST_F(TableTest, UnregisteringLogsThePeerOff) {
  Entry& entry = AClient("agent");
  LogonPushed(entry);
  const MessageRouter::LogonGeneration before = entry.Generation();
  table_.Unregister("agent");
  EXPECT_FALSE(entry.IsLoggedOn());
  EXPECT_GT(entry.Generation(), before);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(TableTest, ANameKnownForItsCertificationAloneBecomesRegistered) {
  Entry& entry = Certified("agent");
  table_.Register("agent", false);
  EXPECT_EQ(table_.Find("agent"), &entry);
  EXPECT_TRUE(entry.IsRegistered());
  EXPECT_FALSE(entry.IsLoggedOn());
}

TEST_F(TableTest, RegisteringEndsACertificationSessionWithItsObjects) {
  Entry& entry = Certified("agent");
  const MessageRouter::LogonGeneration before = entry.Generation();
  // A lock that this thread held already would end the process.
  host_.objects.onDeactivate = [&] { table_.AddCertificationEntry(entry.Name()); };
  table_.Register("agent", false);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
  EXPECT_GT(entry.Generation(), before);
  EXPECT_EQ(entry.GetLogonState(), Entry::kLoggedOff);
  EXPECT_EQ(entry.GetConsumerState(), Entry::kNothingSent);
  EXPECT_EQ(entry.GetSupplierState(), Entry::kNoSupplier);
}

TEST_F(TableTest, ScanGoesThroughTheNamesInOrder) {
  AClient("b");
  AClient("a");
  table_.AddParent("");
  Names names;
  table_.Scan(names);
  EXPECT_THAT(names.names, ElementsAre("", "a", "b"));
}

TEST_F(TableTest, TheParentIsARegisteredRouter) {
  EXPECT_EQ(table_.Parent(), nullptr);
  table_.AddParent("");
  ASSERT_NE(table_.Parent(), nullptr);
  EXPECT_EQ(table_.Find(""), table_.Parent());
  EXPECT_TRUE(table_.Parent()->IsParent());
  EXPECT_TRUE(table_.Parent()->IsRouter());
  EXPECT_TRUE(table_.Parent()->IsRegistered());
}

TEST_F(TableTest, AddParentLeavesAnEntryOfThatNameAlone) {
  AClient("boss");
  table_.AddParent("boss");
  EXPECT_EQ(table_.Parent(), nullptr);
  EXPECT_FALSE(table_.Find("boss")->IsParent());
}

TEST_F(TableTest, AfterSetParentNameBothNamesYieldTheParentAndClearDeletesItOnce) {
  table_.AddParent("");
  table_.SetParentName("boss");
  EXPECT_EQ(table_.Find("boss"), table_.Parent());
  EXPECT_EQ(table_.Find(""), table_.Parent());
  EXPECT_EQ(table_.Parent()->Name(), "boss");
  table_.SetParentName("boss");
  Names names;
  table_.Scan(names);
  EXPECT_THAT(names.names, ElementsAre("", "boss"));
  table_.Clear();
  EXPECT_EQ(table_.Parent(), nullptr);
  table_.FreeDetached();
}

TEST_F(TableTest, AFormerParentCannotUnregisterTheParent) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& parent = *table_.Parent();
  LogonPolled(parent);
  EXPECT_THROW(table_.Unregister("former"), NotRegistered);
  EXPECT_TRUE(parent.IsRegistered());
  EXPECT_TRUE(parent.IsLoggedOn());
}

TEST_F(TableTest, AFormerParentBecomesAChildAndTheParentStaysWhatItIs) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& parent = *table_.Parent();
  LogonPolled(parent);
  table_.Register("former", true);
  EXPECT_TRUE(table_.HasChildRouter("former"));
  EXPECT_NE(table_.Find("former"), &parent);
  EXPECT_EQ(table_.Find("boss"), &parent);
  EXPECT_EQ(table_.Find(""), &parent);
  EXPECT_TRUE(parent.IsLoggedOn());
  LogonPolled(*table_.Find("former"));
  EXPECT_THROW(table_.Register("former", true), AlreadyRegistered);
  table_.Unregister("former");
  EXPECT_FALSE(table_.HasChildRouter("former"));
  EXPECT_TRUE(parent.IsLoggedOn());
}

TEST_F(TableTest, AFormerParentThatRegistersDoesNotRegisterAnUnregisteredParent) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  table_.Unregister("boss");
  table_.Register("former", true);
  EXPECT_FALSE(table_.Parent()->IsRegistered());
  EXPECT_TRUE(table_.HasChildRouter("former"));
}

TEST_F(TableTest, TheEmptyAndThePresentNameOfTheParentStayTaken) {
  table_.AddParent("");
  table_.SetParentName("boss");
  for (const char* name : {"", "boss"}) {
    EXPECT_THROW(table_.Register(name, true), AlreadyRegistered) << name;
    EXPECT_EQ(table_.Find(name), table_.Parent()) << name;
  }
}

TEST_F(TableTest, AParentThatCannotBeAskedForItsNameIsNotAFormerOne) {
  table_.AddParent("");
  table_.SetParentName("boss");
  // The first lock is the table's.
  ThreadHelper::FailLocksAfter(1, 1);
  EXPECT_TRUE(table_.IsParentsName("boss"));
  EXPECT_TRUE(table_.IsParentsName(""));
  ThreadHelper::FailLocksAfter(1, 1);
  EXPECT_THROW(table_.Register("boss", true), AlreadyRegistered);
  EXPECT_EQ(table_.Find("boss"), table_.Parent());
}

TEST_F(TableTest, AFormerParentThatHasBecomeAChildCanBecomeTheParentAgain) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& child = ARouter("former");
  LogonPolled(child);
  Enqueue(child, AnEnvelope().WithId(1));
  table_.SetParentName("former");
  EXPECT_EQ(table_.Find("former"), table_.Parent());
  EXPECT_EQ(table_.Parent()->Name(), "former");
  EXPECT_FALSE(table_.HasChildRouter("former"));
  EXPECT_FALSE(child.IsLoggedOn());
  EXPECT_FALSE(child.HasEnvelopes());
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
  EXPECT_THROW(table_.Register("former", true), AlreadyRegistered);
  table_.Register("boss", true);
  EXPECT_TRUE(table_.HasChildRouter("boss"));
}

TEST_F(TableTest, WithoutAParentSetParentNameDoesNothing) {
  table_.SetParentName("boss");
  EXPECT_EQ(table_.Find("boss"), nullptr);
}

TEST_F(TableTest, AnEntryDisplacedByTheParentsNameStaysValidAndItsQueueIsRoutedAnew) {
  table_.AddParent("");
  Entry& client = AClient("boss");
  LogonPulling(client);
  Enqueue(client, AnEnvelope().WithId(1));
  Enqueue(client, AnEnvelope().WithId(2));
  table_.SetParentName("boss");
  EXPECT_EQ(table_.Find("boss"), table_.Parent());
  EXPECT_EQ(routing_.RouteQueueSize(), 2u);
  EXPECT_FALSE(client.HasEnvelopes());
  EXPECT_FALSE(client.IsLoggedOn());
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
  // A thread that found it before cannot leave an envelope there, nor log on to it.
  EXPECT_FALSE(client.Enqueue(AnEnvelope(), "boss"));
  EXPECT_THROW(LogonPushed(client), NotRegistered);
  EXPECT_THROW(client.LogonCertification("boss"), Rejected);
  table_.Clear();
  EXPECT_EQ(client.Name(), "boss");
}

TEST_F(TableTest, FindFreeEntriesCountsWhatIsInUseAndCollectsTheRest) {
  AClient("registered");
  Certified("active");
  AClient("gone");
  table_.Unregister("gone");
  MessageRouter::FindFreeEntries entries;
  table_.Scan(entries);
  EXPECT_EQ(entries.Active(), 1u);
  EXPECT_THAT(entries.Free(), ElementsAre(table_.Find("gone")));
}

TEST_F(TableTest, ACertificationEntryIsNewAndNotRegistered) {
  table_.AddCertificationEntry("new");
  Entry* entry = table_.Find("new");
  ASSERT_NE(entry, nullptr);
  EXPECT_FALSE(entry->IsRegistered());
  EXPECT_FALSE(entry->IsParent());
  EXPECT_EQ(entry->GetLogonState(), Entry::kNeverUsed);
  table_.AddCertificationEntry("new");
  EXPECT_EQ(table_.Find("new"), entry);
}

TEST_F(TableTest, ACertificationEntryTakesOverAFreeOneAndLeftoversAreRoutedAnew) {
  Entry& free = AClient("former");
  Enqueue(free, AnEnvelope().WithId(1));
  table_.Unregister("former");
  table_.AddCertificationEntry("new");
  EXPECT_EQ(table_.Find("new"), &free);
  EXPECT_EQ(table_.Find("former"), nullptr);
  EXPECT_EQ(free.Name(), "new");
  EXPECT_EQ(free.GetLogonState(), Entry::kCertificationReserved);
  EXPECT_TRUE(free.IsLoggedOn());
  EXPECT_FALSE(free.IsRoutable());
  EXPECT_FALSE(free.HasEnvelopes());
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
}

TEST_F(TableTest, AReservedEntryIsNotTakenOverAgain) {
  AClient("former");
  table_.Unregister("former");
  table_.AddCertificationEntry("first");
  table_.AddCertificationEntry("second");
  EXPECT_NE(table_.Find("first"), table_.Find("second"));
}

TEST_F(TableTest, TheParentIsNeverTakenOver) {
  table_.AddParent("");
  table_.Unregister("");
  table_.AddCertificationEntry("new");
  EXPECT_NE(table_.Find("new"), table_.Parent());
  EXPECT_EQ(table_.Find(""), table_.Parent());
}

TEST_F(TableTest, AFormerParentGetsACertificationEntryOfItsOwn) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& parent = *table_.Parent();
  LogonPolled(parent);
  Entry& entry = Certified("former");
  EXPECT_NE(&entry, &parent);
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(table_.Find("boss"), &parent);
  EXPECT_EQ(table_.Find(""), &parent);
  EXPECT_EQ(parent.GetLogonState(), Entry::kLoggedOn);
}

TEST_F(TableTest, AFormerParentTakesAFreeEntryOverForItsCertification) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& free = AClient("gone");
  table_.Unregister("gone");
  table_.AddCertificationEntry("former");
  EXPECT_EQ(table_.Find("former"), &free);
  EXPECT_EQ(table_.Find("gone"), nullptr);
  EXPECT_EQ(table_.Find("boss"), table_.Parent());
}

TEST_F(TableTest, TheParentsPresentNamesGetNoCertificationEntry) {
  table_.AddParent("");
  table_.SetParentName("boss");
  for (const char* name : {"", "boss"}) {
    table_.AddCertificationEntry(name);
    EXPECT_EQ(table_.Find(name), table_.Parent()) << name;
  }
}

TEST_F(TableTest, WithTheLimitAtThreeAndThreeActiveUnregisteredEntriesNothingIsCreated) {
  MessageRouter::SetConfigInt("ActiveCertificationLogonLimit", 3);
  for (const char* name : {"a", "b", "c"}) Certified(name);
  table_.AddCertificationEntry("d");
  EXPECT_EQ(table_.Find("d"), nullptr);
  table_.Find("b")->LogoffCertification();
  table_.AddCertificationEntry("d");
  EXPECT_NE(table_.Find("d"), nullptr);
  EXPECT_EQ(table_.Find("b"), nullptr);
}

TEST_F(TableTest, OfManyNewcomersAtOnceNoMoreGetInThanTheLimitAllows) {
  MessageRouter::SetConfigInt("ActiveCertificationLogonLimit", 3);
  std::vector<std::thread> newcomers;
  for (int i = 0; i < 8; ++i) {
    newcomers.emplace_back([&, name = "peer" + std::to_string(i)] {
      table_.AddCertificationEntry(name);
      Entry* entry = table_.Find(name);
      if (entry == nullptr) return;
      try {
        entry->LogonCertification(name);
      } catch (const Rejected&) {  // the next one has taken the entry
      }
    });
  }
  for (std::thread& newcomer : newcomers) newcomer.join();
  MessageRouter::FindFreeEntries entries;
  table_.Scan(entries);
  EXPECT_GT(entries.Active(), 0u);
  EXPECT_LE(entries.Active() + entries.Free().size(), 3u);
}

TEST_F(TableTest, WithTheDefaultOfZeroThereIsNoLimitOfCertificationEntries) {
  for (int i = 0; i < 50; ++i) Certified("peer" + std::to_string(i));
  EXPECT_NE(table_.Find("peer49"), nullptr);
}

TEST_F(TableTest, ALockThatFailsMakesTheTableANoOp) {
  AClient("agent");
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(table_.Find("agent"), nullptr);
  ThreadHelper::FailNextLocks(2);
  EXPECT_NO_THROW(table_.Register("other", false));
  EXPECT_EQ(table_.Find("other"), nullptr);
  Names names;
  ThreadHelper::FailNextLocks(1);
  table_.Scan(names);
  EXPECT_THAT(names.names, IsEmpty());
}

using ClosedTableTest = TableTest;

TEST_F(ClosedTableTest, FromTheForcedWriteOnNothingIsFoundAndNothingComesIn) {
  table_.AddParent("");
  AClient("agent");
  table_.WriteTable(true);
  EXPECT_EQ(table_.Find("agent"), nullptr);
  EXPECT_THROW(table_.Register("other", false), Rejected);
  EXPECT_THROW(table_.Unregister("agent"), NotRegistered);
  table_.AddCertificationEntry("new");
  table_.AddParent("boss");
  table_.SetParentName("boss");
  EXPECT_EQ(table_.Find("new"), nullptr);
  Names names;
  table_.Scan(names);
  EXPECT_THAT(names.names, IsEmpty());
  table_.Clear();
  EXPECT_THROW(table_.Register("other", false), Rejected);
}

TEST_F(ClosedTableTest, ItStillTellsWhoWasAChildRouterWhenItWasClosed) {
  table_.AddParent("");
  table_.SetParentName("boss");
  ARouter("child");
  ARouter("gone");
  AClient("agent");
  table_.Unregister("gone");
  const auto check = [&] {
    EXPECT_TRUE(table_.HasChildRouter("child"));
    for (const char* name : {"gone", "agent", "boss", "", "other"}) {
      EXPECT_FALSE(table_.HasChildRouter(name)) << name;
    }
  };
  table_.WriteTable(true);
  check();
  table_.Clear();
  check();
  table_.Clear();
  check();
  WriteTableText("");
  table_.ReadTable(true);
  EXPECT_FALSE(table_.HasChildRouter("child"));
}

TEST_F(ClosedTableTest, AWriteAfterwardsLeavesTheFileAlone) {
  AClient("agent");
  table_.WriteTable(true);
  table_.Clear();
  PassAMinute();
  table_.WriteTable(false);
  table_.WriteTable(true);
  table_.Tick();
  EXPECT_EQ(TableText(), "agent.0..\n");
}

TEST_F(ClosedTableTest, ReadTableOpensItAgain) {
  AClient("agent");
  table_.WriteTable(true);
  table_.Clear();
  table_.FreeDetached();
  table_.ReadTable(true);
  EXPECT_NE(table_.Find("agent"), nullptr);
  EXPECT_NE(table_.Parent(), nullptr);
  EXPECT_NO_THROW(table_.Register("other", false));
}

TEST_F(ClosedTableTest, DetachedEntriesStayGoodUntilTheyAreFreedAndTakeNothing) {
  Entry& entry = AClient("agent");
  LogonPushed(entry);
  Enqueue(entry, AStoredEnvelope("1.msg"));
  table_.Clear();
  EXPECT_EQ(entry.Name(), "agent");
  EXPECT_FALSE(entry.IsLoggedOn());
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_TRUE(CORBA::is_nil(entry.References().messageConsumer));
  EXPECT_FALSE(entry.Enqueue(AnEnvelope(), "agent"));
  EXPECT_THROW(LogonPushed(entry), NotRegistered);
  EXPECT_THROW(entry.LogonCertification("agent"), Rejected);
  std::vector<Envelope> leftovers;
  EXPECT_FALSE(entry.TakeOver("other", leftovers));
  EXPECT_TRUE(FileExists("1.msg"));
  table_.FreeDetached();
}

TEST_F(ClosedTableTest, TheParentLogonHearsNothingOfAClear) {
  table_.AddParent("");
  table_.Clear();
  EXPECT_EQ(host_.LinksLost(), 0u);
}

}  // namespace
}  // namespace TestSupport
