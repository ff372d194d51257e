#include "delivery/ScanThreads.h"

#include <chrono>
#include <future>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "delivery/NotificationThresholdWorker.h"
#include "delivery/RouterThread.h"
#include "delivery/TimeoutWorker.h"
#include "envelope/MessageIdGenerator.h"
#include "fixture.h"
#include "support/AllocationFailure.h"

namespace DeliveryTests {
namespace {

using MessageRouter::GetterThread;
using MessageRouter::kLogDebug;
using MessageRouter::kLogInfo;
using MessageRouter::kLogTrace;
using MessageRouter::kLogWarning;
using MessageRouter::NotificationThresholdThread;
using MessageRouter::TimeoutThread;
using MessageRouter::TimeoutWorker;
using testing::ElementsAre;

// A scan thread that shows its pool, and takes an entry without a look at its state.
template <class Thread>
class Exposed : public Thread {
 public:
  using Thread::Thread;
  ~Exposed() override { this->Stop(); }
  void Offer(RouterTableEntry& entry) { this->manager_.Add(entry); }
  RouterTableEntry* Next() { return this->manager_.Queue().Get(); }
  std::size_t Queued() { return this->manager_.Queue().Size(); }
};

class ScanTest : public DeliveryTest {
 protected:
  template <class Condition>
  static bool Eventually(Condition&& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }
  // Time enough for many scans, if there were any.
  template <class Thread>
  void BeVisitedOften(Exposed<Thread>& thread) {
    RouterTableEntry& entry = AClient("often");
    for (int visit = 0; visit < 2000; ++visit) {
      thread.Offer(entry);
      ASSERT_TRUE(Eventually([&] { return thread.Queued() == 0; }));
    }
  }
  void VisitForTimeout(RouterTableEntry& entry) {
    TimeoutWorker worker(pool);
    worker.ProcessEntry(entry);
  }
  // A child router that fetches for itself.
  RouterTableEntry& APullingRouter(const std::string& name = "child") {
    RouterTableEntry& entry = ARouter(name);
    entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(),
                      BrelixMessaging::RouterSupplier::_nil(),
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    return entry;
  }
  // One that waits to be asked.
  RouterTableEntry& APolledRouter(const std::string& name = "polled") {
    RouterTableEntry& entry = ARouter(name);
    supplier = TestSupport::AReferenceTo<BrelixMessaging::RouterSupplier>("polled");
    entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(), supplier,
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    return entry;
  }

  BrelixMessaging::RouterSupplier_var supplier;
};

TEST_F(ScanTest, EntryUnderTwoNamesIsLookedAtOnce) {
  class Counting : public MessageRouter::RouterTableScanner {
   public:
    void CheckEntry(RouterTableEntry& entry) override { names.push_back(entry.Name()); }
    std::vector<std::string> names;
  } scanner;
  table.AddParent("");
  table.SetParentName("boss");
  AClient("agent");
  table.Scan(scanner);
  EXPECT_THAT(scanner.names, testing::UnorderedElementsAre("agent", "boss"));
}

TEST_F(ScanTest, PeriodOfZeroScansOnceAndSleepsUntilTheStop) {
  Exposed<TimeoutThread> thread(table);
  thread.Configure(0, 1);
  thread.Start();
  ASSERT_TRUE(Eventually([&] { return log.Contains("checking table"); }));
  clock.Advance(std::chrono::hours(1));
  BeVisitedOften(thread);
  thread.Stop();
  EXPECT_EQ(log.Count("TimeoutThread::Process() checking table\n"), 1u);
}

TEST_F(ScanTest, NotificationThresholdPeriodOfZeroScansOnceToo) {
  Exposed<NotificationThresholdThread> thread(table);
  thread.Configure(0, 1);
  thread.Start();
  ASSERT_TRUE(Eventually([&] { return log.Contains("checking table"); }));
  BeVisitedOften(thread);
  thread.Stop();
  EXPECT_EQ(log.Count("NotificationThresholdThread::Process() checking table\n"), 1u);
}

TEST_F(ScanTest, ThreadStopsAtOnceInsteadOfAtTheEndOfItsPeriod) {
  GetterThread thread(table);
  thread.Configure(3600, 2);
  thread.Start();
  ASSERT_TRUE(
      Eventually([&] { return log.Has(kLogTrace, "GetterThread::Process() checking table\n"); }));
  thread.Stop();
}

TEST_F(ScanTest, ThreadCanBeStartedAgain) {
  TimeoutThread thread(table);
  for (int cycle = 1; cycle <= 2; ++cycle) {
    thread.Configure(3600, 1);
    thread.Start();
    EXPECT_TRUE(Eventually([&] { return log.Count("checking table") == std::size_t(cycle); }));
    thread.Stop();
  }
}

TEST_F(ScanTest, EntryOfferedBetweenOpeningAndStartIsVisited) {
  Exposed<GetterThread> thread(table);
  thread.Configure(3600, 1);
  thread.Start();
  thread.Stop();
  RouterTableEntry& entry = APolledRouter();  // no scan has seen it
  thread.Offer(entry);
  EXPECT_EQ(thread.Queued(), 0u);
  thread.Open();
  thread.NotifiedPoll(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  thread.Start();
  // A visit: the peer leads nowhere, and is logged off for it.
  EXPECT_TRUE(Eventually([&] { return !entry.IsLoggedOn(); }));
}

TEST_F(ScanTest, StopClosesThePoolOfAThreadThatWasNeverStarted) {
  Exposed<GetterThread> thread(table);
  thread.Open();
  thread.Offer(AClient());
  ASSERT_EQ(thread.Queued(), 1u);
  thread.Stop();
  EXPECT_EQ(thread.Queued(), 0u);
  thread.Offer(*table.Find("agent"));
  EXPECT_EQ(thread.Queued(), 0u);
}

// What the timeout thread looks at.
TEST_F(ScanTest, OfflineClientWithEnvelopesIsAddedForTimeout) {
  Exposed<TimeoutThread> thread(table);
  RouterTableEntry& entry = AClient();
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 0u);
  Enqueue(entry, Expired(1));
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  EXPECT_TRUE(log.Has(kLogDebug, "TimeoutThread::CheckEntry() adding entry: agent\n"));
}

TEST_F(ScanTest, OfflineClientsExpiredEnvelopeIsRetiredWithItsWarningAndNoLogoff) {
  RouterTableEntry& entry = AClient();
  Enqueue(entry, Expired(1).WithType("Status.Report").WithOriginator("r.sender"));
  Enqueue(entry, Stored(2));
  VisitForTimeout(entry);
  EXPECT_FALSE(OnDisk(1));
  EXPECT_TRUE(log.Has(
      kLogWarning, "Delivery failed(Timeout) for message type Status.Report, originator r.sender"));
  EXPECT_FALSE(log.Contains("Communications timeout"));
  EXPECT_THAT(Waiting(entry), ElementsAre(2u));
}

TEST_F(ScanTest, PullingPeersExpiredEnvelopeIsRetired) {
  RouterTableEntry& entry = APullingRouter();
  Enqueue(entry, Expired(1));
  Exposed<TimeoutThread> thread(table);
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  VisitForTimeout(entry);
  EXPECT_FALSE(OnDisk(1));
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(ScanTest, LoggedOnPassiveConsumersExpiredEnvelopesStayUntilASenderMeetsThem) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Expired(1));
  Exposed<TimeoutThread> thread(table);
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 0u);
  VisitForTimeout(entry);
  EXPECT_TRUE(OnDisk(1));
  Visit(entry);
  EXPECT_FALSE(OnDisk(1));
  EXPECT_EQ(peer->count, 0);
}

TEST_F(ScanTest, RouterThatPullsAndStaysSilentFor1801SecondsIsLoggedOff) {
  RouterTableEntry& entry = APullingRouter();
  Exposed<TimeoutThread> thread(table);
  clock.Advance(std::chrono::seconds(1800));
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 0u);
  clock.Advance(std::chrono::seconds(1));
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  VisitForTimeout(entry);
  EXPECT_TRUE(log.Has(kLogInfo, "Communications timeout, logging child off\n"));
  EXPECT_FALSE(entry.IsLoggedOn());
}

TEST_F(ScanTest, RouterThatPulledMeanwhileStaysLoggedOn) {
  RouterTableEntry& entry = APullingRouter();
  clock.Advance(std::chrono::seconds(1801));
  entry.TouchLastPull(entry.Name());
  VisitForTimeout(entry);
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(ScanTest, ClientThatPullsAndStaysSilentStaysLoggedOn) {
  RouterTableEntry& entry = AClient();
  entry.LogonClient(entry.Name(), BrelixMessaging::EnvelopeConsumer::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  entry.TouchLastPull(entry.Name());
  Exposed<TimeoutThread> thread(table);
  clock.Advance(std::chrono::seconds(1801));
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 0u);
  VisitForTimeout(entry);
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(ScanTest, LogoffThatRaisesIsLoggedAndCostsTheVisitAlone) {
  table.AddParent("boss");
  RouterTableEntry& parent = *table.Parent();
  parent.MarkRegistered(true);
  parent.LogonRouter(parent.Name(), BrelixMessaging::RouterConsumer::_nil(),
                     BrelixMessaging::RouterSupplier::_nil(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  host.onParentLinkLost = [] { throw BrelixMessaging::NotLoggedOn(); };
  clock.Advance(std::chrono::seconds(1801));
  EXPECT_NO_THROW(VisitForTimeout(parent));
  EXPECT_TRUE(log.Has(
      MessageRouter::kLogError,
      "TimeoutWorker: Caught CORBA " + Broker::Describe(BrelixMessaging::NotLoggedOn()) + " \n"));
}

// A router that was unregistered and asks for a certificate: nothing it can be logged off from.
TEST_F(ScanTest, LogoffThatIsRefusedLeavesTheEntryAndIsTriedAgainAtTheNextScan) {
  RouterTableEntry& entry = ARouter();
  table.Unregister("child");
  entry.LogonCertification("child");
  const auto session = entry.Generation();
  clock.Advance(std::chrono::seconds(1801));
  Exposed<TimeoutThread> thread(table);
  for (std::size_t scan = 1; scan <= 2; ++scan) {
    thread.CheckEntry(entry);
    ASSERT_EQ(thread.Queued(), 1u);
    ASSERT_EQ(thread.Next(), &entry);
    VisitForTimeout(entry);
    EXPECT_EQ(log.Count("TimeoutWorker: Caught CORBA"), scan);
    EXPECT_EQ(entry.Generation(), session);
    EXPECT_EQ(entry.GetLogonState(), RouterTableEntry::kCertification);
  }
}

TEST_F(ScanTest, LogoffWhoseNoticeFailsIsLoggedAndCostsTheVisitAlone) {
  RouterTableEntry& entry = APullingRouter();
  table.SetLoggedOffNotice([](const std::string&, bool) { throw std::runtime_error("no notice"); });
  clock.Advance(std::chrono::seconds(1801));
  EXPECT_NO_THROW(VisitForTimeout(entry));
  EXPECT_TRUE(log.Has(MessageRouter::kLogError, "TimeoutWorker: Caught no notice \n"));
  EXPECT_FALSE(entry.IsLoggedOn());
}

TEST_F(ScanTest, SilentRouterIsLoggedOffThoughThereIsNoMemoryForTheLine) {
  RouterTableEntry& entry = APullingRouter("a name that takes memory wherever it is copied");
  clock.Advance(std::chrono::seconds(1801));
  TimeoutWorker worker(pool);
  {
    const TestSupport::AllocationFailure failure(0, 1);
    worker.ProcessEntry(entry);
    EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
  }
  EXPECT_FALSE(log.Contains("Communications timeout"));
  EXPECT_FALSE(entry.IsLoggedOn());
}

TEST_F(ScanTest, WhatHasExpiredIsRetiredBeforeTheSilentRouterIsLoggedOff) {
  RouterTableEntry& entry = APullingRouter();
  Enqueue(entry, Expired(1));
  clock.Advance(std::chrono::seconds(1801));
  VisitForTimeout(entry);
  std::vector<std::string> told;
  for (const auto& line : log.Lines()) {
    for (const char* part : {"Delivery failed(Timeout)", "Communications timeout"}) {
      if (line.text.find(part) != std::string::npos) told.emplace_back(part);
    }
  }
  EXPECT_THAT(told, ElementsAre("Delivery failed(Timeout)", "Communications timeout"));
}

TEST_F(ScanTest, NamesOfPeersAreShownWithoutControlCharacters) {
  RouterTableEntry& entry = APullingRouter("a\nb");
  clock.Advance(std::chrono::seconds(1801));
  Exposed<TimeoutThread> thread(table);
  thread.CheckEntry(entry);
  VisitForTimeout(entry);
  EXPECT_TRUE(log.Has(kLogDebug, "TimeoutThread::CheckEntry() adding entry: a?b\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Communications timeout, logging a?b off\n"));
}

TEST_F(ScanTest, ScanAndWorkerTogetherRetireWhatHasExpired) {
  RouterTableEntry& entry = AClient();
  Enqueue(entry, Expired(1));
  TimeoutThread thread(table);
  thread.Configure(3600, 1);
  thread.Start();
  EXPECT_TRUE(Eventually([&] { return !entry.HasEnvelopes(); }));
  thread.Stop();
}

TEST_F(ScanTest, ZeroTimeoutIntervalStopsExpiryAndPullTimeoutAfterTheFirstScan) {
  RouterTableEntry& offline = AClient();
  RouterTableEntry& silent = APullingRouter();
  Enqueue(offline, Expired(1));
  Exposed<TimeoutThread> thread(table);
  thread.Configure(0, 1);
  thread.Start();
  // The first scan is over when what it found has been visited.
  ASSERT_TRUE(Eventually([&] { return !OnDisk(1); }));
  Enqueue(offline, Expired(2));
  clock.Advance(std::chrono::seconds(1801));
  BeVisitedOften(thread);
  thread.Stop();
  EXPECT_TRUE(OnDisk(2));
  EXPECT_TRUE(silent.IsLoggedOn());
}

// A thread of scans, whose memory goes at the first entry.
class ShortOfMemory : public Exposed<TimeoutThread> {
 public:
  ShortOfMemory(MessageRouter::RouterTable& table, std::size_t failures)
      : Exposed(table), failures_(failures) {}
  void CheckEntry(RouterTableEntry&) override {
    static thread_local std::optional<TestSupport::AllocationFailure> failure;
    failure.emplace(0, failures_);
  }

 private:
  const std::size_t failures_;
};

// Whatever is there still for the log.
using ScanDeathTest = ScanTest;
TEST_F(ScanDeathTest, AScanThatFindsNoMemoryEndsTheProcess) {
  AClient("a name that takes memory wherever it is copied");
  AClient("another name that takes memory wherever it is copied");
  for (const std::size_t failures : {std::size_t{1}, TestSupport::AllocationFailure::kForGood}) {
    EXPECT_EXIT(
        {
          ShortOfMemory thread(table, failures);
          thread.Start();
          thread.Join();
        },
        testing::ExitedWithCode(255), "")
        << failures;
  }
}

// What the getter thread looks at.
TEST_F(ScanTest, PolledRouterThatIsDueIsAddedOnce) {
  Exposed<GetterThread> thread(table);
  RouterTableEntry& entry = APolledRouter();
  thread.CheckEntry(entry);
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollDue);
  EXPECT_TRUE(log.Has(kLogDebug, "GetterThread::CheckEntry() adding entry: polled\n"));
}

TEST_F(ScanTest, NotifiedPollIsAddedAtOnceAndOnce) {
  Exposed<GetterThread> thread(table);
  RouterTableEntry& entry = APolledRouter();
  thread.NotifiedPoll(entry);
  thread.NotifiedPoll(entry);
  EXPECT_EQ(thread.Queued(), 1u);
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollNotified);
}

TEST_F(ScanTest, PollThatIsFoundDueWithoutMemoryReachesTheGetters) {
  Exposed<GetterThread> thread(table);
  RouterTableEntry& entry = APolledRouter("a name that takes memory wherever it is copied");
  const TestSupport::AllocationFailure failure;
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Next(), &entry);
  entry.successfulGet(entry.ClaimForPolling().generation);
  thread.NotifiedPoll(entry);
  EXPECT_EQ(thread.Next(), &entry);
  thread.GetterThread::Offer(entry);
  EXPECT_EQ(thread.Next(), &entry);
  EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
}

TEST_F(ScanTest, ActiveSupplierIsNeverPolled) {
  Exposed<GetterThread> thread(table);
  RouterTableEntry& entry = APullingRouter();
  thread.CheckEntry(entry);
  thread.NotifiedPoll(entry);
  EXPECT_EQ(thread.Queued(), 0u);
}

TEST_F(ScanTest, ScanAndWorkersTogetherPollAPeerThatIsDueAndTellHowItWent) {
  SupplierPeer peer;
  RouterTableEntry& entry = ARouter("polled");
  entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(), peer.Reference(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  std::promise<std::pair<bool, bool>> poll;
  GetterThread thread(table);
  thread.SetPollObserver([&poll](bool notified, bool got) { poll.set_value({notified, got}); });
  thread.Configure(3600, 2);
  thread.Start();
  EXPECT_EQ(poll.get_future().get(), std::pair(false, false));
  thread.Stop();
  EXPECT_EQ(peer->count, 1);
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
}

TEST_F(ScanTest, PeerThatHangsInAPollKeepsNobodyElseFromBeingPolled) {
  SupplierPeer hanging;
  SupplierPeer other;
  std::promise<void> called;
  std::promise<void> mayAnswer;
  hanging->onCall = [&](int) {
    called.set_value();
    mayAnswer.get_future().wait();
  };
  RouterTableEntry& stuck = ARouter("hanging");
  stuck.LogonRouter("hanging", BrelixMessaging::RouterConsumer::_nil(), hanging.Reference(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  GetterThread thread(table);
  thread.Configure(3600, 2);
  thread.Start();
  called.get_future().wait();
  // However often it logs on: the second worker is everybody's.
  for (int logon = 0; logon < 3; ++logon) {
    stuck.LogonRouter("hanging", BrelixMessaging::RouterConsumer::_nil(), hanging.Reference(),
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    thread.NotifiedPoll(stuck);
  }
  RouterTableEntry& entry = ARouter("other");
  entry.LogonRouter("other", BrelixMessaging::RouterConsumer::_nil(), other.Reference(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  thread.NotifiedPoll(entry);
  EXPECT_TRUE(
      Eventually([&] { return entry.GetSupplierState() == RouterTableEntry::kPollWaiting; }));
  mayAnswer.set_value();
  thread.Stop();
  EXPECT_EQ(hanging->count, 1);
  EXPECT_EQ(other->count, 1);
}

// What the notification threshold thread looks at.
TEST_F(ScanTest, PeerInTheWaitingStateWhoseTimeHasNotComeIsAddedAtEachScanAndNothingChanges) {
  Exposed<NotificationThresholdThread> thread(table);
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  ASSERT_TRUE(entry.NotificationRetryDue().acquired);
  entry.NotificationFailed(entry.Generation());
  ASSERT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  for (int scan = 1; scan <= 2; ++scan) {
    thread.CheckEntry(entry);
    ASSERT_EQ(thread.Queued(), 1u);
    EXPECT_EQ(thread.Next(), &entry);
    MessageRouter::NotificationThresholdWorker worker(pool);
    worker.ProcessEntry(entry);
    EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  }
  EXPECT_EQ(peer->thresholdCalls.count, 0);
  EXPECT_TRUE(
      log.Has(kLogDebug, "NotificationThresholdThread::CheckEntry() adding entry: agent\n"));
}

// While all workers hang.
TEST_F(ScanTest, PeerThatNobodyTakesOutOfTheThresholdQueueStandsThereOnce) {
  Exposed<NotificationThresholdThread> thread(table);
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  entry.ThresholdCallFailed(entry.NotificationRetryDue().generation);
  for (int scan = 1; scan <= 3; ++scan) thread.CheckEntry(entry);
  thread.NotificationThresholdThread::Offer(entry);
  EXPECT_EQ(thread.Queued(), 1u);
}

TEST_F(ScanTest, PeerThatNobodyNotifiedYetIsIgnoredByTheThresholdScan) {
  Exposed<NotificationThresholdThread> thread(table);
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  ASSERT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  thread.CheckEntry(entry);
  EXPECT_EQ(thread.Queued(), 0u);
}

TEST_F(ScanTest, PeerWithoutNotifierIsIgnoredByTheThresholdScan) {
  Exposed<NotificationThresholdThread> thread(table);
  thread.CheckEntry(APullingRouter());
  EXPECT_EQ(thread.Queued(), 0u);
}

TEST_F(ScanTest, ThresholdOfferNeedsNoScan) {
  NotifyPeer peer;
  RouterTableEntry& entry = ANotifiedClient(peer);
  NotificationThresholdThread thread(table);
  thread.Configure(3600, 1);
  thread.Start();
  thread.Offer(entry);
  EXPECT_TRUE(Eventually([&] { return entry.GetConsumerState() == RouterTableEntry::kNotified; }));
  thread.Stop();
  EXPECT_EQ(peer->thresholdCalls.count, 1);
}

// All that it routes would wait with it.
TEST_F(ScanTest, RouterThreadIsPreferredWhereIdsAreShort) {
  using Preference = MessageRouter::MessageIdGenerator::Preference;
  AClient();
  std::atomic<bool> offered{false};
  std::atomic<bool> preferred{false};
  host.onOfferToSenders = [&] {
    preferred = Preference::IsThisThreads();
    offered = true;
  };
  MessageRouter::RouterThread thread(routing);
  thread.Start();
  routing.QueueForRouting(Stored(1).WithDestination("agent"));
  EXPECT_TRUE(Eventually([&] { return offered.load(); }));
  thread.Stop();
  EXPECT_TRUE(preferred);
  EXPECT_FALSE(Preference::IsThisThreads());
}

TEST_F(ScanTest, RouterThreadRoutesWhatIsQueuedUntilItIsStopped) {
  RouterTableEntry& entry = AClient();
  MessageRouter::RouterThread thread(routing);
  thread.Start();
  routing.QueueForRouting(Stored(1).WithDestination("agent"));
  EXPECT_TRUE(Eventually([&] { return entry.HasEnvelopes(); }));
  thread.Stop();
  EXPECT_THAT(Waiting(entry), ElementsAre(1u));
}

}  // namespace
}  // namespace DeliveryTests
