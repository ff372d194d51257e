#include "delivery/GetterWorker.h"

#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "delivery/EndOfVisit.h"
#include "delivery/ScanThreads.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "support/AllocationFailure.h"

namespace DeliveryTests {
namespace {

using MessageRouter::GetterWorker;
using MessageRouter::kLogDebug;
using MessageRouter::kLogError;
using MessageRouter::kLogWarning;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Polls = std::vector<std::pair<bool, bool>>;  // notified, got

BrelixMessaging::Envelope Wire(std::uint32_t id, const std::string& originator = "child.agent-9",
                               const std::string& type = "Text") {
  BrelixMessaging::Envelope wire;
  wire.originator_certificate = "";
  wire.originator = originator.c_str();
  wire.physical_destination.length(1);
  wire.physical_destination[0] = "agent";
  wire.message_id = static_cast<BrelixMessaging::MessageId>(id);
  wire.client_info.destination = "agent";
  wire.client_info.type = type.c_str();
  wire.client_info.prio = 5;
  wire.client_info.ttl = 0;
  wire.client_info.delivery_options = "";
  wire.client_info.custom_data <<= "payload";
  return wire;
}

// A child router that waits to be asked, every 900 seconds, and a client for whom its envelopes
// are.
class GetterWorkerTest : public DeliveryTest {
 protected:
  GetterWorkerTest() : entry(ARouter()), agent(AClient()) {
    MessageRouter::Thresholds thresholds;
    thresholds.randomizeGetterInterval = false;
    host.SetThresholds(thresholds);
    Logon(peer);
  }
  void Logon(SupplierPeer& supplier) {
    entry.LogonRouter(entry.Name(), BrelixMessaging::RouterConsumer::_nil(), supplier.Reference(),
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  }
  void Hold(std::uint32_t count) {
    for (std::uint32_t id = 1; id <= count; ++id) peer->waiting.push_back(Wire(id));
  }

  void VisitForPoll() {
    GetterWorker worker(pool,
                        [this](bool notified, bool got) { polls.emplace_back(notified, got); });
    worker.ProcessEntry(entry);
  }
  void TimedPoll() {
    ASSERT_TRUE(entry.readyForTimedPoll());
    VisitForPoll();
  }
  void NotifiedPoll() {
    ASSERT_TRUE(entry.readyForNotifiedPoll());
    VisitForPoll();
  }

  // What is routed goes to the agent's queue.
  std::vector<std::uint32_t> Routed() {
    while (routing.RouteQueueSize() > 0) routing.RouteNext(0, 1);
    return Waiting(agent);
  }
  std::size_t Files() const {
    std::size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(store.Directory())) {
      count += file.path().extension() == ".msg" ? 1 : 0;
    }
    return count;
  }
  bool Logged(const std::string& text) const {
    return log.Has(kLogDebug, "GetterWorker::ProcessEntry() - " + text + "\n");
  }
  void ExpectLoggedOff() {
    EXPECT_FALSE(entry.IsLoggedOn());
    EXPECT_TRUE(log.Has(kLogError, "Failed to get messages, logging child off\n"));
    EXPECT_THAT(polls, IsEmpty());
  }

  SupplierPeer peer;
  RouterTableEntry& entry;
  RouterTableEntry& agent;
  Polls polls;
};

TEST_F(GetterWorkerTest, PollFetchesRoutesAndAcknowledgesAllThatThePeerHolds) {
  Hold(3);
  TimedPoll();
  EXPECT_THAT(peer->waiting, IsEmpty());
  EXPECT_EQ(peer->count, 4);
  EXPECT_THAT(Routed(), ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(Files(), 3u);
  EXPECT_TRUE(Logged("polling child"));
  EXPECT_TRUE(Logged("got message (id=00000001)"));
  EXPECT_TRUE(Logged("acknowledged message (id=00000003)"));
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
}

TEST_F(GetterWorkerTest, EnvelopeIsOnDiskAndQueuedBeforeItIsAcknowledged) {
  Hold(1);
  std::size_t files = 0;
  std::size_t queued = 0;
  peer->acknowledgements.onCall = [&](int) {
    files = Files();
    queued = routing.RouteQueueSize();
  };
  TimedPoll();
  EXPECT_EQ(files, 1u);
  EXPECT_EQ(queued, 1u);
}

TEST_F(GetterWorkerTest, LinkThatFailsBeforeTheAcknowledgementMeansASecondCopyAtTheNextPoll) {
  Hold(1);
  peer->acknowledgements.UnreachableFor(2);
  TimedPoll();
  ExpectLoggedOff();
  Logon(peer);
  NotifiedPoll();
  EXPECT_THAT(Routed(), ElementsAre(1u, 1u));
  EXPECT_THAT(peer->waiting, IsEmpty());
}

TEST_F(GetterWorkerTest, NoEnvelopeAtTheFirstGetIsASuccessfulPollThatGotNothingAndTouchesLastGet) {
  TimedPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(false, false)));
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
  EXPECT_TRUE(log.Has(
      kLogDebug, "RouterTableEntry::successfulGet(): re-started polling interval for child\n"));
  EXPECT_FALSE(log.Contains("Caught"));
  clock.Advance(seconds(899));
  EXPECT_FALSE(entry.readyForTimedPoll());
  clock.Advance(seconds(1));
  EXPECT_TRUE(entry.readyForTimedPoll());
}

TEST_F(GetterWorkerTest, TimedPollThatBringsAnEnvelopeIsToldAsOneThatNobodyNotified) {
  Hold(1);
  TimedPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
}

TEST_F(GetterWorkerTest, NotifiedPollThatBringsNoneIsToldAsNotified) {
  NotifiedPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(true, false)));
}

TEST_F(GetterWorkerTest, NotifiedPollThatBringsSomethingIsToldAsBoth) {
  Hold(1);
  NotifiedPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(true, true)));
}

TEST_F(GetterWorkerTest, PollWithoutAnObserverIsAPollAllTheSame) {
  Hold(1);
  ASSERT_TRUE(entry.readyForTimedPoll());
  GetterWorker worker(pool, nullptr);
  worker.ProcessEntry(entry);
  EXPECT_THAT(Routed(), ElementsAre(1u));
}

TEST_F(GetterWorkerTest, NotificationForAPeerWhoseIntervalHasJustStartedPollsAtOnceAndRestartsIt) {
  TimedPoll();
  clock.Advance(seconds(600));
  Hold(1);
  NotifiedPoll();
  EXPECT_THAT(peer->waiting, IsEmpty());
  clock.Advance(seconds(899));
  EXPECT_FALSE(entry.readyForTimedPoll());
  clock.Advance(seconds(1));
  EXPECT_TRUE(entry.readyForTimedPoll());
}

TEST_F(GetterWorkerTest, PollIsOverWhenTheObserverIsToldOfIt) {
  std::uint32_t state = RouterTableEntry::kPollRunning;
  ASSERT_TRUE(entry.readyForTimedPoll());
  GetterWorker worker(pool, [&](bool, bool) { state = entry.GetSupplierState(); });
  worker.ProcessEntry(entry);
  EXPECT_EQ(state, RouterTableEntry::kPollWaiting);
}

TEST_F(GetterWorkerTest, SecondVisitToAPeerThatIsPolledChangesNothing) {
  Hold(1);
  ASSERT_TRUE(entry.readyForTimedPoll());
  ASSERT_TRUE(entry.ClaimForPolling().acquired);
  VisitForPoll();
  EXPECT_EQ(peer->count, 0);
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollRunning);
  EXPECT_THAT(polls, ElementsAre(std::pair(false, false)));
}

TEST_F(GetterWorkerTest, VisitAfterThePollIsOverChangesNothing) {
  TimedPoll();
  clock.Advance(seconds(100));
  VisitForPoll();
  EXPECT_EQ(peer->count, 1);
  clock.Advance(seconds(800));
  EXPECT_TRUE(entry.readyForTimedPoll());
}

TEST_F(GetterWorkerTest, VisitToAPeerThatLoggedOffChangesNothing) {
  ASSERT_TRUE(entry.readyForTimedPoll());
  entry.Logoff();
  VisitForPoll();
  EXPECT_EQ(peer->count, 0);
  EXPECT_FALSE(log.Contains("logging child off"));
}

TEST_F(GetterWorkerTest, NotificationDuringAPollChangesNothingOfItAndMeansOneMoreAfterIt) {
  Hold(1);
  peer->onCall = [this](int) {
    host.NotifiedPoll(entry);
    EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollRunning);
    EXPECT_THAT(host.Pollers(), IsEmpty());
  };
  TimedPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
  EXPECT_THAT(host.Pollers(), ElementsAre(&entry));
  peer->onCall = nullptr;
  VisitForPoll();
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true), std::pair(true, false)));
  EXPECT_THAT(host.Pollers(), SizeIs(1));
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
}

TEST_F(GetterWorkerTest, EnvelopeAnnouncedAfterTheEndOfTheQueueWasSeenIsFetchedAtOnce) {
  peer->onCall = [this](int) {
    peer->onCall = nullptr;
    host.NotifiedPoll(entry);
    throw BrelixMessaging::NoEnvelope();
  };
  TimedPoll();
  Hold(1);
  ASSERT_THAT(host.Pollers(), ElementsAre(&entry));
  VisitForPoll();
  EXPECT_THAT(Routed(), ElementsAre(1u));
}

TEST_F(GetterWorkerTest, NotificationDuringAVisitThatMaximumToGetEndsBringsTheRest) {
  MessageRouter::SetConfigInt("MaximumToGet", 1);
  Hold(2);
  peer->onCall = [this](int call) {
    if (call == 1) host.NotifiedPoll(entry);
  };
  TimedPoll();
  ASSERT_THAT(host.Pollers(), ElementsAre(&entry));
  VisitForPoll();
  EXPECT_THAT(Routed(), ElementsAre(1u, 2u));
}

TEST_F(GetterWorkerTest, NotificationDuringAPollThatFailsMeansNoOther) {
  peer->onCall = [this](int) {
    host.NotifiedPoll(entry);
    throw BrelixMessaging::Rejected();
  };
  TimedPoll();
  ExpectLoggedOff();
  EXPECT_THAT(host.Pollers(), IsEmpty());
}

TEST_F(GetterWorkerTest, GetSystemExceptionAndThenSuccessCountsAsANormalTurn) {
  Hold(1);
  peer->UnreachableFor(1);
  TimedPoll();
  EXPECT_EQ(peer->count, 3);
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(GetterWorkerTest, TwoGetSystemExceptionsInARowFailThePoll) {
  Hold(1);
  peer->UnreachableFor(2);
  TimedPoll();
  EXPECT_EQ(peer->count, 2);
  ExpectLoggedOff();
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kNoSupplier);
  EXPECT_TRUE(log.Contains("GetterWorker: Caught CORBA"));
  EXPECT_FALSE(log.Contains("re-started polling interval"));
}

TEST_F(GetterWorkerTest, AcknowledgeSystemExceptionAndThenSuccessIsASuccess) {
  Hold(2);
  peer->acknowledgements.UnreachableFor(1);
  TimedPoll();
  EXPECT_EQ(peer->acknowledgements.count, 3);
  EXPECT_THAT(Routed(), ElementsAre(1u, 2u));
  EXPECT_TRUE(entry.IsLoggedOn());
}

// The first acknowledgement did arrive, and only its answer was lost.
TEST_F(GetterWorkerTest, NoEnvelopeAtTheAcknowledgementEndsThePollAsASuccessThatGotSomething) {
  Hold(2);
  peer->acknowledgements.onCall = [this](int call) {
    if (call > 1) return;
    peer->waiting.pop_front();
    throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_MAYBE);
  };
  TimedPoll();
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_THAT(peer->waiting, SizeIs(1));
}

TEST_F(GetterWorkerTest, ExpiredCertificateIsLoggedAsSuchAndLogsThePeerOff) {
  peer->onCall = [](int) { throw BrelixMessaging::CertificateExpired(); };
  TimedPoll();
  EXPECT_EQ(peer->count, 1);
  ExpectLoggedOff();
  EXPECT_TRUE(log.Has(kLogError, "GetterWorker: Caught CORBA " +
                                     Broker::Describe(BrelixMessaging::CertificateExpired()) +
                                     " certificate expiry\n"));
}

TEST_F(GetterWorkerTest, RefusalLogsThePeerOff) {
  peer->onCall = [](int) { throw BrelixMessaging::NotLoggedOn(); };
  TimedPoll();
  EXPECT_EQ(peer->count, 1);
  ExpectLoggedOff();
  EXPECT_TRUE(log.Has(kLogError, "GetterWorker: Caught CORBA " +
                                     Broker::Describe(BrelixMessaging::NotLoggedOn()) + " \n"));
}

// From the failure of the poll on.
TEST_F(GetterWorkerTest, FailureWithoutMemoryLogsThePeerOff) {
  RouterTableEntry& other = ARouter("a name that takes memory wherever it is copied");
  const auto poll = [&] {
    other.LogonRouter(other.Name(), BrelixMessaging::RouterConsumer::_nil(), peer.Reference(),
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    ASSERT_TRUE(other.readyForNotifiedPoll());
    GetterWorker worker(pool, nullptr);
    try {
      worker.ProcessEntry(other);
    } catch (const std::bad_alloc&) {
    }
  };
  {
    std::optional<TestSupport::AllocationFailure> failure;
    peer->onCall = [&](int call) {
      if (call == 2) failure.emplace();
      throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    };
    poll();
    EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
  }
  EXPECT_EQ(peer->count, 2);
  EXPECT_FALSE(other.IsLoggedOn());
  EXPECT_EQ(other.GetSupplierState(), RouterTableEntry::kNoSupplier);
  peer->onCall = nullptr;
  poll();
  EXPECT_EQ(peer->count, 3);
}

TEST_F(GetterWorkerTest, EnvelopeThatMayOnlyComeFromTheParentFailsThePollAndStaysWithThePeer) {
  peer->waiting.push_back(Wire(1));
  peer->waiting.push_back(Wire(2, "child.EM", "EM-DoAction"));
  TimedPoll();
  ExpectLoggedOff();
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_THAT(peer->waiting, SizeIs(1));
  EXPECT_EQ(peer->acknowledgements.count, 1);
}

TEST_F(GetterWorkerTest, EnvelopeThatIsTooLargeEndsThePollAtOnceAndStaysWithThePeer) {
  Hold(2);
  peer->waiting.back().client_info.custom_data <<= std::string(9000, 'x').c_str();
  MessageRouter::Settings::SetLargest({1000, 2000});
  TimedPoll();
  MessageRouter::Settings::Forget();
  ExpectLoggedOff();
  EXPECT_EQ(peer->count, 2);
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_THAT(peer->waiting, SizeIs(1));
}

TEST_F(GetterWorkerTest, EnvelopeThatCannotBeStoredFailsThePollAndStaysWithThePeer) {
  Hold(1);
  std::filesystem::remove_all(store.Directory());
  TimedPoll();
  ExpectLoggedOff();
  EXPECT_TRUE(log.Has(kLogError, "GetterWorker: Caught Failed to create persistent envelope \n"));
  EXPECT_THAT(peer->waiting, SizeIs(1));
  EXPECT_EQ(routing.RouteQueueSize(), 0u);
}

TEST_F(GetterWorkerTest, PeerThatLogsOffBetweenTwoTurnsEndsThePollWithoutAFailure) {
  Hold(2);
  peer->acknowledgements.onCall = [this](int) { entry.Logoff(); };
  TimedPoll();
  EXPECT_EQ(peer->count, 1);
  EXPECT_THAT(peer->waiting, SizeIs(1));
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
  EXPECT_FALSE(log.Contains("logging child off"));
}

TEST_F(GetterWorkerTest, LogoffThatRaisesIsLoggedAndCostsNothingElse) {
  table.AddParent("boss");
  RouterTableEntry& parent = *table.Parent();
  peer->onCall = [](int) { throw BrelixMessaging::Rejected(); };
  const auto lineOfALogoffThat = [&](std::function<void()> raises) {
    host.onParentLinkLost = nullptr;
    parent.LogonRouter(parent.Name(), BrelixMessaging::RouterConsumer::_nil(), peer.Reference(),
                       BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    EXPECT_TRUE(parent.readyForNotifiedPoll());
    host.onParentLinkLost = std::move(raises);
    GetterWorker worker(pool, nullptr);
    EXPECT_NO_THROW(worker.ProcessEntry(parent));
    return log.Lines().back();
  };
  const auto corba = lineOfALogoffThat([] { throw BrelixMessaging::NotLoggedOn(); });
  EXPECT_THAT(corba.text, testing::StartsWith("GetterWorker: Caught CORBA "));
  EXPECT_THAT(corba.text, testing::HasSubstr(" during logoff"));
  EXPECT_EQ(lineOfALogoffThat([] { throw std::runtime_error("it broke"); }).text,
            "GetterWorker: Caught it broke during logoff\n");
  const auto unknown = lineOfALogoffThat([] { throw 1; });
  EXPECT_EQ(unknown.text, "GetEntryGuard destructor caught unknown exception\n");
  EXPECT_EQ(unknown.level, kLogError);
}

TEST_F(GetterWorkerTest, LogoffThatRaisesWithoutMemoryCostsItsLineAlone) {
  const TestSupport::AllocationFailure failure;
  MessageRouter::EndVisit("GetterWorker", "GetEntryGuard",
                          [] { throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO); });
  EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
}

TEST_F(GetterWorkerTest, LogoffThatRaisesLetsThePollOfTheNextSessionIn) {
  table.SetLoggedOffNotice([](const std::string&, bool) { throw std::runtime_error("no notice"); });
  peer->UnreachableFor(2);
  TimedPoll();
  ASSERT_FALSE(entry.IsLoggedOn());
  Logon(peer);
  NotifiedPoll();
  EXPECT_EQ(peer->count, 3);
}

TEST_F(GetterWorkerTest, FailedPollOfTheParentTellsTheParentLogon) {
  table.AddParent("boss");
  RouterTableEntry& parent = *table.Parent();
  parent.LogonRouter(parent.Name(), BrelixMessaging::RouterConsumer::_nil(), peer.Reference(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  ASSERT_TRUE(parent.readyForNotifiedPoll());
  const unsigned before = host.LinksLost();
  peer->UnreachableFor(2);
  GetterWorker worker(pool, nullptr);
  worker.ProcessEntry(parent);
  EXPECT_EQ(host.LinksLost(), before + 1);
  EXPECT_FALSE(parent.IsLoggedOn());
}

TEST_F(GetterWorkerTest, ManagementCommandOfTheParentIsTaken) {
  table.AddParent("boss");
  RouterTableEntry& parent = *table.Parent();
  parent.LogonRouter(parent.Name(), BrelixMessaging::RouterConsumer::_nil(), peer.Reference(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  peer->waiting.push_back(Wire(2, "EM", "EM-DoAction"));
  ASSERT_TRUE(parent.readyForNotifiedPoll());
  GetterWorker worker(pool, nullptr);
  worker.ProcessEntry(parent);
  EXPECT_TRUE(parent.IsLoggedOn());
  EXPECT_THAT(Routed(), ElementsAre(2u));
}

// A worker that hung in one session while the peer began another.
TEST_F(GetterWorkerTest, FailureInAnOldSessionDoesNotLogTheNewOneOff) {
  SupplierPeer again;
  peer->onCall = [&](int call) {
    if (call == 1) {
      entry.Logoff();
      Logon(again);
    }
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  TimedPoll();
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
  EXPECT_FALSE(log.Contains("logging child off"));
}

TEST_F(GetterWorkerTest, LateSuccessLeavesTheRestAndThePollOfTheNewSessionAlone) {
  SupplierPeer again;
  Hold(2);
  peer->onCall = [&](int) {
    entry.Logoff();
    Logon(again);
    ASSERT_TRUE(entry.readyForNotifiedPoll());
  };
  TimedPoll();
  EXPECT_EQ(peer->count, 1);
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollNotified);
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
  EXPECT_EQ(peer->acknowledgements.count, 1);
  EXPECT_THAT(Routed(), ElementsAre(1u));
}

TEST_F(GetterWorkerTest, NoSecondWorkerPollsAPeerThatHangsAndLogsOnAgain) {
  Hold(2);
  peer->onCall = [this](int call) {
    if (call > 1) return;
    Logon(peer);
    NotifiedPoll();
    EXPECT_EQ(peer->count, 1);
  };
  TimedPoll();
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollNotified);
  ASSERT_THAT(host.Getters(), ElementsAre(&entry));
  VisitForPoll();
  EXPECT_THAT(peer->waiting, IsEmpty());
  EXPECT_THAT(Routed(), ElementsAre(1u, 2u));
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
}

TEST_F(GetterWorkerTest, HungAcknowledgementOfAnOldSessionThatFailsOffersTheNewOneAgain) {
  Hold(1);
  peer->acknowledgements.onCall = [this](int call) {
    if (call == 1) {
      Logon(peer);
      NotifiedPoll();
      EXPECT_EQ(peer->count, 1);
    }
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  TimedPoll();
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_THAT(host.Getters(), ElementsAre(&entry));
}

TEST_F(GetterWorkerTest, WorkerThatIsToldToStopBeforeItsFirstTurnMakesThatTurn) {
  Hold(2);
  ASSERT_TRUE(entry.readyForTimedPoll());
  GetterWorker worker(pool, [this](bool notified, bool got) { polls.emplace_back(notified, got); });
  worker.RequestStop();
  worker.ProcessEntry(entry);
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_THAT(polls, ElementsAre(std::pair(false, true)));
}

TEST_F(GetterWorkerTest, StopEndsThePollAfterTheEnvelopeInFlight) {
  Hold(3);
  ASSERT_TRUE(entry.readyForTimedPoll());
  GetterWorker worker(pool, nullptr);
  peer->onCall = [&worker](int) { worker.RequestStop(); };
  worker.ProcessEntry(entry);
  EXPECT_EQ(peer->count, 1);
  EXPECT_EQ(peer->acknowledgements.count, 1);
  EXPECT_THAT(Routed(), ElementsAre(1u));
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(GetterWorkerTest, MaximumToGetEndsAVisitAndTheRestWaitsForTheNext) {
  MessageRouter::SetConfigInt("MaximumToGet", 2);
  Hold(3);
  TimedPoll();
  EXPECT_EQ(peer->count, 2);
  EXPECT_THAT(Routed(), ElementsAre(1u, 2u));
  EXPECT_EQ(entry.GetSupplierState(), RouterTableEntry::kPollWaiting);
  NotifiedPoll();
  EXPECT_THAT(Routed(), ElementsAre(3u));
}

TEST_F(GetterWorkerTest, MaximumToGetOf0IsUnlimitedAndEachWorkerWarns) {
  MessageRouter::SetConfigInt("MaximumToGet", 0);
  Hold(20);
  GetterWorker other(pool, nullptr);
  TimedPoll();
  EXPECT_THAT(peer->waiting, IsEmpty());
  EXPECT_EQ(log.Count("MaximumToGet"), 2u);
  EXPECT_TRUE(log.Has(kLogWarning, "MaximumToGet is zero, using value of -1\n"));
}

TEST_F(GetterWorkerTest, MaximumToGetOf9IsWarnedAboutAndStands) {
  MessageRouter::SetConfigInt("MaximumToGet", 9);
  Hold(10);
  TimedPoll();
  EXPECT_TRUE(
      log.Has(kLogWarning, "MaximumToGet value is 9 - this is low and may degrade performance\n"));
  EXPECT_THAT(peer->waiting, SizeIs(1));
}

TEST_F(GetterWorkerTest, MaximumToGetOf10AndTheDefaultDrawNoWarning) {
  const GetterWorker byDefault(pool, nullptr);
  MessageRouter::SetConfigInt("MaximumToGet", 10);
  const GetterWorker ten(pool, nullptr);
  EXPECT_FALSE(log.Contains("MaximumToGet"));
}

TEST_F(GetterWorkerTest, MaximumToGetIsReadOnceForAWorker) {
  MessageRouter::SetConfigInt("MaximumToGet", 10);
  Hold(3);
  GetterWorker worker(pool, nullptr);
  MessageRouter::SetConfigInt("MaximumToGet", 1);
  ASSERT_TRUE(entry.readyForTimedPoll());
  worker.ProcessEntry(entry);
  EXPECT_THAT(peer->waiting, IsEmpty());
}

}  // namespace
}  // namespace DeliveryTests
