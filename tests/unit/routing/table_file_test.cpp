#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "fixture.h"
#include "support/AllocationFailure.h"
#include "threads/FailLocks.h"

namespace TestSupport {
namespace {

using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;
using MessageRouter::kLogInfo;
using MessageRouter::kLogWarning;
using std::chrono::milliseconds;

class TableFileTest : public RoutingTest {
 protected:
  std::string Ior(const std::string& key) {
    const CORBA::Object_var object = AReference(key);
    return host_.ObjectToString(object);
  }
  std::size_t Writes() const { return log_.Count("Writing router table file\n"); }
};

TEST_F(TableFileTest, ALineWithoutAReferenceRestoresARegisteredClientThatIsNotLoggedOn) {
  WriteTableText("alpha.0..\n");
  table_.ReadTable(false);
  EXPECT_TRUE(log_.Has(kLogInfo, "Reading router table file\n"));
  Entry* entry = table_.Find("alpha");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->IsRegistered());
  EXPECT_FALSE(entry->IsRouter());
  EXPECT_FALSE(entry->IsLoggedOn());
  EXPECT_EQ(table_.Parent(), nullptr);
}

TEST_F(TableFileTest, ALineWithAReferenceRestoresALoggedOnRouterWithNoLocalObjects) {
  const std::string ior = Ior("beta");
  WriteTableText("beta.1." + ior + ".\n");
  table_.ReadTable(false);
  EXPECT_TRUE(log_.Has(kLogInfo, "Restoring logon for beta\n"));
  Entry* entry = table_.Find("beta");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->IsRouter());
  EXPECT_TRUE(entry->IsLoggedOn());
  EXPECT_TRUE(entry->IsPassiveConsumer());
  EXPECT_EQ(host_.ObjectToString(entry->References().routerConsumer), ior);
  EXPECT_EQ(host_.objects.Created(), 0u);
}

TEST_F(TableFileTest, EveryTypeIsRestoredInItsWayAndNoPeerIsCalled) {
  WriteTableText("c0.0." + Ior("c0") + ".\nc1.1." + Ior("c1") + ".\nc2.2." + Ior("c2") +
                 ".\nc3.3." + Ior("c3") + ".\nc4.4." + Ior("c4") + ".\n");
  table_.ReadTable(false);
  EXPECT_FALSE(CORBA::is_nil(table_.Find("c0")->References().messageConsumer));
  EXPECT_FALSE(CORBA::is_nil(table_.Find("c1")->References().routerConsumer));
  EXPECT_FALSE(CORBA::is_nil(table_.Find("c2")->References().notifyConsumer));
  EXPECT_FALSE(CORBA::is_nil(table_.Find("c3")->References().notifyConsumer));
  EXPECT_FALSE(table_.Find("c2")->IsRouter());
  EXPECT_TRUE(table_.Find("c3")->IsRouter());
  EXPECT_EQ(table_.Find("c2")->GetConsumerState(), Entry::kNothingSent);
  EXPECT_EQ(table_.Find("c3")->GetSupplierState(), Entry::kActiveSupplier);
  EXPECT_TRUE(table_.Find("c4")->IsRegistered());
  EXPECT_FALSE(table_.Find("c4")->IsLoggedOn());
}

TEST_F(TableFileTest, ARecordWithThisRoutersOwnNameIsSkippedAndSoIsAnEmptyOne) {
  WriteTableText("router1.1..\n.0..\nalpha.0..\n");
  table_.ReadTable(false);
  EXPECT_EQ(table_.Find("router1"), nullptr);
  EXPECT_EQ(table_.Find(""), nullptr);
  EXPECT_NE(table_.Find("alpha"), nullptr);
}

TEST_F(TableFileTest, TwoLinesOfTheSameNameRegisterTheFirstAndLogTheSecondAsADuplicate) {
  WriteTableText("alpha.0..\nalpha.1..\nbeta.0..\n");
  table_.ReadTable(false);
  EXPECT_FALSE(table_.Find("alpha")->IsRouter());
  EXPECT_NE(table_.Find("beta"), nullptr);
  EXPECT_TRUE(log_.Contains("RouterTable::ReadTable: Caught CORBA"));
  EXPECT_EQ(log_.Count(". Discarding duplicate entry for 'alpha'"), 1u);
}

TEST_F(TableFileTest, AReferenceThatCannotBeReadCostsThatLogonAlone) {
  WriteTableText("alpha.1.IOR:nonsense.\nbeta.0..\n");
  table_.ReadTable(false);
  EXPECT_TRUE(table_.Find("alpha")->IsRegistered());
  EXPECT_FALSE(table_.Find("alpha")->IsLoggedOn());
  EXPECT_NE(table_.Find("beta"), nullptr);
  EXPECT_EQ(log_.Count("RouterTable::ReadTable: Caught CORBA"), 1u);
}

TEST_F(TableFileTest, ALineThatDoesNotParseEndsTheReadingWithOneWarningThatNamesIt) {
  WriteTableText("alpha.0..\nbeta.x..\ngamma.0..\ndelta.y..\n");
  table_.ReadTable(true);
  EXPECT_NE(table_.Find("alpha"), nullptr);
  EXPECT_EQ(table_.Find("gamma"), nullptr);
  EXPECT_NE(table_.Parent(), nullptr);
  EXPECT_EQ(log_.Count("Line 2 of the router table file"), 1u);
  EXPECT_EQ(log_.Count("of the router table file is damaged"), 1u);
}

TEST_F(TableFileTest, AMissingFileGivesAnEmptyTableAndNoWarning) {
  table_.ReadTable(true);
  EXPECT_NE(table_.Parent(), nullptr);
  for (const auto& line : log_.Lines()) EXPECT_LT(line.level, kLogWarning) << line.text;
}

TEST_F(TableFileTest, AFileThatCannotBeReadGivesAnEmptyTable) {
  std::filesystem::create_directory(TablePath());
  table_.ReadTable(true);
  EXPECT_NE(table_.Parent(), nullptr);
}

TEST_F(TableFileTest, IsWrittenInTheOrderOfNamesWithoutTheParentAndTheUnregistered) {
  table_.AddParent("");
  table_.SetParentName("boss");
  Entry& pushed = ARouter("pushed");
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  const NotifyConsumer::_var_type notify = AReferenceTo<NotifyConsumer>("notify");
  pushed.LogonRouter(pushed.Name(), consumer, RouterSupplier::_nil(), notify, 0, true);
  Entry& notified = ARouter("notified");
  notified.LogonRouter(notified.Name(), RouterConsumer::_nil(), RouterSupplier::_nil(), notify, 0,
                       true);
  ARouter("away");
  LogonPushed(AClient("client"));
  AClient("gone");
  table_.Unregister("gone");
  table_.AddCertificationEntry("certified");
  table_.WriteTable(false);
  EXPECT_EQ(TableText(), "away.1..\nclient.0..\nnotified.3." + host_.ObjectToString(notify) +
                             ".\npushed.1." + host_.ObjectToString(consumer) + ".\n");
}

TEST_F(TableFileTest, WhatIsWrittenIsReadBack) {
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  ARouter("child").LogonRouter("child", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                               true);
  AClient("client");
  table_.WriteTable(true);
  table_.Clear();
  table_.FreeDetached();
  table_.ReadTable(false);
  EXPECT_TRUE(table_.Find("child")->IsPassiveConsumer());
  EXPECT_TRUE(table_.Find("client")->IsRegistered());
}

TEST_F(TableFileTest, IsWrittenAtMostOnceIn60001Milliseconds) {
  table_.ReadTable(false);
  AClient("alpha");
  table_.WriteTable(false);
  clock_.Advance(milliseconds(60000));
  table_.WriteTable(false);
  EXPECT_EQ(Writes(), 0u);
  clock_.Advance(milliseconds(1));
  table_.WriteTable(false);
  EXPECT_EQ(Writes(), 1u);
  table_.WriteTable(false);
  EXPECT_EQ(Writes(), 1u);
}

TEST_F(TableFileTest, AWriteThatIsPutOffIsMadeByTheTickAsSoonAsTheTimeHasPassed) {
  table_.ReadTable(false);
  AClient("alpha");
  table_.WriteTable(false);
  clock_.Advance(milliseconds(60000));
  table_.Tick();
  EXPECT_EQ(TableText(), "");
  clock_.Advance(milliseconds(1));
  table_.Tick();
  EXPECT_EQ(TableText(), "alpha.0..\n");
  PassAMinute();
  table_.Tick();
  EXPECT_EQ(Writes(), 1u);
}

TEST_F(TableFileTest, AnAdministratorWhoSetsTheClockBackDelaysNoWrite) {
  table_.ReadTable(false);
  clock_.AdvanceWall(-1000000);
  PassAMinute();
  table_.WriteTable(false);
  EXPECT_EQ(Writes(), 1u);
}

TEST_F(TableFileTest, AForcedWriteIsMadeAtOnce) {
  table_.ReadTable(false);
  AClient("alpha");
  table_.WriteTable(true);
  EXPECT_EQ(TableText(), "alpha.0..\n");
}

TEST_F(TableFileTest, AWriteThatIsOwedCanBeMadeAtOnceAndLeavesTheTableOpen) {
  table_.ReadTable(false);
  table_.WriteOwed();
  EXPECT_EQ(Writes(), 0u);
  AClient("alpha");
  table_.WriteTable(false);
  table_.WriteOwed();
  EXPECT_EQ(TableText(), "alpha.0..\n");
  table_.WriteOwed();
  EXPECT_EQ(Writes(), 1u);
  AClient("beta");
  table_.WriteTable(true);
  EXPECT_EQ(TableText(), "alpha.0..\nbeta.0..\n");
  table_.WriteOwed();
  EXPECT_EQ(Writes(), 2u);
}

TEST_F(TableFileTest, AFailedWriteCountsAsOneAndIsTriedAgainByTheTick) {
  std::filesystem::create_directory(TablePath());
  AClient("alpha");
  table_.WriteTable(false);
  EXPECT_EQ(log_.Count("router table file"), 2u);
  table_.WriteTable(false);
  EXPECT_EQ(Writes(), 1u);
  std::filesystem::remove(TablePath());
  PassAMinute();
  table_.Tick();
  EXPECT_EQ(TableText(), "alpha.0..\n");
}

TEST_F(TableFileTest, AFolderThatIsMissingMeansThatTheFileCannotBeOpened) {
  MessageRouter::RouterTable table(host_, (configuration_.Folder() / "missing/file").string());
  table.WriteTable(true);
  EXPECT_TRUE(log_.Has(kLogWarning, "Cannot open the router table file for writing.\n"));
}

// No file can grow while it lives, as on a full disk.
class FullDisk {
 public:
  FullDisk() : previousHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &previous_);
    rlimit none = previous_;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_FSIZE, &none);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    std::signal(SIGXFSZ, previousHandler_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  void (*previousHandler_)(int);
  rlimit previous_{};
};

TEST_F(TableFileTest, AFullDiskKeepsTheOldFileAndTheWriteIsMadeLater) {
  AClient("alpha");
  table_.WriteTable(false);
  PassAMinute();
  AClient("beta");
  {
    FullDisk full;
    table_.WriteTable(false);
  }
  EXPECT_TRUE(log_.Has(kLogWarning, "Cannot write the router table file.\n"));
  EXPECT_EQ(TableText(), "alpha.0..\n");
  PassAMinute();
  table_.Tick();
  EXPECT_EQ(TableText(), "alpha.0..\nbeta.0..\n");
}

TEST_F(TableFileTest, NamesThatCannotBeReadBackAreNotWrittenAndWarnedOfOnce) {
  AClient("a.b");
  AClient("a\nb");
  AClient("a\rb");
  AClient("good");
  for (int i = 0; i < 2; ++i) {
    table_.WriteTable(false);
    PassAMinute();
  }
  EXPECT_EQ(Writes(), 2u);
  EXPECT_EQ(TableText(), "good.0..\n");
  EXPECT_EQ(log_.Count("is not kept over a restart"), 3u);
}

TEST_F(TableFileTest, AReferenceThatCannotBeWrittenCostsNoRegistration) {
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  ARouter("child").LogonRouter("child", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                               true);
  host_.FailNextObjectToString();
  table_.WriteTable(false);
  EXPECT_EQ(TableText(), "child.1..\n");
}

TEST_F(TableFileTest, NoNameReachesTheLogWithControlCharacters) {
  WriteTableText("a+AAo-b.1." + Ior("a") + ".\nc\x1b.0..\nc\x1b.0..\n");
  table_.ReadTable(false);
  EXPECT_TRUE(log_.Contains("Restoring logon for a?b\n"));
  EXPECT_TRUE(log_.Contains(". Discarding duplicate entry for 'c?'"));
  AClient("d.+AAo-");
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  ARouter("e\x1b").LogonRouter("e\x1b", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                               true);
  host_.FailNextObjectToString();
  table_.Find("a+AAo-b")->Logoff("a+AAo-b");
  PassAMinute();
  table_.WriteTable(false);
  EXPECT_TRUE(log_.Contains("The registration of d.? is not kept"));
  EXPECT_EQ(log_.Count("RouterTable::WriteTable: Caught CORBA"), 1u);
  EXPECT_TRUE(log_.Contains(" e?\n"));
}

TEST_F(TableFileTest, AWriteThatAnExceptionEndedIsOwed) {
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  ARouter("child").LogonRouter("child", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                               true);
  host_.onObjectToString = [] { throw std::bad_alloc(); };
  EXPECT_THROW(table_.WriteTable(false), std::bad_alloc);
  host_.onObjectToString = nullptr;
  PassAMinute();
  table_.Tick();
  EXPECT_TRUE(TableText().starts_with("child.1."));
}

TEST_F(TableFileTest, AForcedWriteThatAnExceptionEndedLeavesTheTableOpenAndIsOwed) {
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  ARouter("child").LogonRouter("child", consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                               true);
  host_.onObjectToString = [] { throw std::bad_alloc(); };
  EXPECT_THROW(table_.WriteTable(true), std::bad_alloc);
  host_.onObjectToString = nullptr;
  EXPECT_NE(table_.Find("child"), nullptr);
  table_.WriteOwed();
  EXPECT_TRUE(TableText().starts_with("child.1."));
  table_.WriteTable(true);
  EXPECT_EQ(table_.Find("child"), nullptr);
}

TEST_F(TableFileTest, AForcedWriteThatFindsNoMemoryLeavesTheTableOpenAndIsOwed) {
  const std::string name = "a name that takes memory of its own";
  AClient(name);
  std::size_t spared = 0;
  for (bool failed = true; failed; ++spared) {
    ASSERT_LT(spared, 1000u);
    WriteTableText("old");
    try {
      const AllocationFailure failure(spared, 1);
      table_.WriteTable(true);
      failed = AllocationFailure::Happened();
    } catch (const std::bad_alloc&) {
      ASSERT_NE(table_.Find(name), nullptr) << spared;
      table_.WriteOwed();
    }
    ASSERT_EQ(TableText(), name + ".0..\n") << spared;
    if (table_.Find(name) == nullptr) table_.ReadTable(false);
  }
  EXPECT_GT(spared, 2u);
}

TEST_F(TableFileTest, AWriteThatGotALockTooFewIsOwed) {
  AClient("alpha");
  // The file's, and then that of the rows.
  for (const unsigned spared : {2u, 3u}) {
    WriteTableText("old");
    ThreadHelper::FailLocksAfter(spared, 1);
    table_.WriteTable(false);
    EXPECT_EQ(TableText(), "old") << spared;
    PassAMinute();
    table_.Tick();
    EXPECT_EQ(TableText(), "alpha.0..\n") << spared;
    PassAMinute();
  }
}

TEST_F(TableFileTest, AWriteThatCannotSeeWhetherTheTableIsClosedIsMade) {
  AClient("alpha");
  ThreadHelper::FailNextLocks(1);
  table_.WriteTable(false);
  EXPECT_EQ(TableText(), "alpha.0..\n");
}

TEST_F(TableFileTest, NoLockOfTheTableIsHeldWhileTheFileIsMade) {
  const RouterConsumer::_var_type consumer = AReferenceTo<RouterConsumer>("consumer");
  Entry& child = ARouter("child");
  child.LogonRouter(child.Name(), consumer, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                    true);
  unsigned calls = 0;
  host_.onObjectToString = [&] {
    ++calls;
    table_.Register("other", false);
    child.TouchLastPull(child.Name());
  };
  table_.WriteTable(false);
  EXPECT_EQ(calls, 1u);
}

}  // namespace
}  // namespace TestSupport
