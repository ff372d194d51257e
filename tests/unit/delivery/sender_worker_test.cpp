#include "delivery/SenderWorker.h"

#include <algorithm>
#include <new>
#include <optional>
#include <semaphore>
#include <thread>

#include "envelope/Settings.h"
#include "fixture.h"
#include "support/AllocationFailure.h"
#include "threads/Mutex.h"

namespace DeliveryTests {
namespace {

using MessageRouter::kLogDebug;
using MessageRouter::kLogError;
using MessageRouter::kLogInfo;
using MessageRouter::kLogTrace;
using MessageRouter::kLogWarning;
using MessageRouter::SenderWorker;
using MessageRouter::SetConfigInt;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::AllocationFailure;

class SenderTest : public DeliveryTest {
 protected:
  // A visit whose delivery fails, with no memory from its second failure on.
  template <class Peer>
  void VisitThatFailsWithoutMemory(RouterTableEntry& entry, Peer& peer) {
    std::optional<AllocationFailure> failure;
    peer->onCall = [&failure](int call) {
      if (call == 2) failure.emplace();
      throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    };
    try {
      Visit(entry);
    } catch (const std::bad_alloc&) {
    }
    EXPECT_TRUE(AllocationFailure::Happened());
    EXPECT_EQ(peer->count, 2);
  }
};

constexpr char kLongName[] = "a name that takes memory wherever it is copied";

TEST_F(SenderTest, EmptiesTheQueueInTheOrderOfLeaving) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1).WithPriority(5));
  Enqueue(entry, Stored(2).WithPriority(6));
  Enqueue(entry, Stored(3).WithPriority(5));
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(2u, 1u, 3u));
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushIdle);
}

TEST_F(SenderTest, FileGoesAwayOnlyAfterDelivery) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [this](int) { EXPECT_TRUE(OnDisk(1)); };
  Visit(entry);
  EXPECT_FALSE(OnDisk(1));
}

TEST_F(SenderTest, DeliveryToAClientIsLogged) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(0x0A0B0C0D).WithOptions("later=1"));
  Visit(entry);
  EXPECT_TRUE(log.Has(kLogTrace, "Outgoing client message delivery options: later=1\n"));
  EXPECT_TRUE(log.Has(kLogTrace, "Sending message (id=0A0B0C0D) to agent\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Sent message (id=0A0B0C0D) to agent\n"));
}

TEST_F(SenderTest, DeliveryToARouterIsLogged) {
  RouterPeer peer;
  RouterTableEntry& entry = APushedRouter(peer);
  Enqueue(entry, Stored(1).WithOptions("later=1"));
  Visit(entry);
  EXPECT_TRUE(log.Has(kLogTrace, "Outgoing router message delivery options: later=1\n"));
  EXPECT_TRUE(log.Has(kLogInfo, "Sent message (id=00000001) to child\n"));
}

TEST_F(SenderTest, NoOptionsNoOptionsLine) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_FALSE(log.Contains("delivery options"));
}

TEST_F(SenderTest, OriginatorIsQualifiedForARouterAlone) {
  RouterPeer router;
  RouterTableEntry& child = APushedRouter(router);
  Enqueue(child, Stored(1).WithOriginator("sender"));
  Visit(child);
  EXPECT_THAT(router->originators, ElementsAre("router1.sender"));

  ClientPeer client;
  RouterTableEntry& agent = APushedClient(client);
  Enqueue(agent, Stored(2).WithOriginator("sender"));
  Visit(agent);
  EXPECT_THAT(client->originators, ElementsAre("sender"));
}

TEST_F(SenderTest, SystemExceptionAndThenSuccessCountsAsADelivery) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  SetConfigInt("MaximumToSend", 1);
  peer->UnreachableFor(1);
  Visit(entry);
  EXPECT_EQ(peer->count, 2);
  EXPECT_THAT(peer->received, ElementsAre(1u));
  EXPECT_FALSE(OnDisk(1));
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_TRUE(log.Has(kLogInfo, "Sent message (id=00000001) to agent\n"));
}

TEST_F(SenderTest, SecondSystemExceptionPutsTheEnvelopeBackAndLogsThePeerOff) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  peer->UnreachableFor(2);
  Visit(entry);
  EXPECT_EQ(peer->count, 2);
  EXPECT_FALSE(entry.IsLoggedOn());
  EXPECT_TRUE(log.Has(kLogError,
                      "Failed to send message (id=00000001) because of unknown exception, adding "
                      "message back to queue\n"));
  EXPECT_TRUE(log.Contains("SenderWorker: Caught CORBA"));
  EXPECT_TRUE(log.Has(kLogError, "Failed to send messages, logging agent off\n"));
  EXPECT_TRUE(OnDisk(1));
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
}

TEST_F(SenderTest, EnvelopePutBackIsTheNextToGoWhateverItsPriority) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1).WithPriority(1));
  peer->onCall = [&](int call) {
    if (call == 1) Enqueue(entry, Stored(2).WithPriority(9));
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
}

TEST_F(SenderTest, PeerThatFailedGetsWhatWaitsAtItsNextLogon) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  peer->UnreachableFor(2);
  Visit(entry);
  Logon(entry, peer);
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u));
}

// From the failure of the delivery on.
TEST_F(SenderTest, FailureWithoutMemoryPutsTheEnvelopeBackAndLogsThePeerOff) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, kLongName);
  Enqueue(entry, Stored(1).WithPriority(1));
  Enqueue(entry, Stored(2).WithPriority(0));
  VisitThatFailsWithoutMemory(entry, peer);
  EXPECT_FALSE(entry.IsLoggedOn());
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNothingSent);
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
  Logon(entry, peer);
  EXPECT_TRUE(entry.ClaimForSending().acquired);
}

// Whichever allocation of the visit it is.
TEST_F(SenderTest, OneAllocationThatFailsLosesNoEnvelope) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer, kLongName);
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    if (!entry.IsLoggedOn()) Logon(entry, peer);
    Enqueue(entry, Stored(1));
    peer->received.clear();
    {
      const AllocationFailure failure(successes, 1);
      try {
        Visit(entry);
      } catch (const std::bad_alloc&) {
      }
      complete = !AllocationFailure::Happened();
    }
    const std::size_t waiting = Waiting(entry).size();
    EXPECT_GE(waiting + peer->received.size(), 1u) << successes;
    EXPECT_TRUE(waiting == 0 || OnDisk(1)) << successes;
    EXPECT_TRUE(entry.GetConsumerState() == RouterTableEntry::kPushIdle || !entry.IsLoggedOn());
  }
  EXPECT_THAT(peer->received, ElementsAre(1u));
}

// Its file has to stay where its name can't be made. What was delivered goes out a second time at
// the next start, but not before.
TEST_F(SenderTest, DeliveredEnvelopeThatCannotBeRetiredStaysOnDiskAloneAndTheVisitGoesOn) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  bool met = false;
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    if (!entry.IsLoggedOn()) Logon(entry, peer);
    Enqueue(entry, Stored(1));
    Enqueue(entry, Stored(2));
    peer->received.clear();
    log.Clear();
    std::optional<AllocationFailure> failure;
    peer->onCall = [&](int) {
      if (!failure) failure.emplace(successes, 1);
    };
    Visit(entry);
    complete = !AllocationFailure::Happened();
    failure.reset();
    const std::vector<std::uint32_t> waiting = Waiting(entry);
    if (!OnDisk(1) || std::count(waiting.begin(), waiting.end(), 1u) != 0) continue;
    met = true;
    EXPECT_THAT(peer->received, ElementsAre(1u, 2u)) << successes;
    EXPECT_THAT(waiting, IsEmpty()) << successes;
    EXPECT_TRUE(entry.IsLoggedOn()) << successes;
  }
  EXPECT_TRUE(met);
  EXPECT_THAT(peer->received, ElementsAre(1u, 2u));
}

TEST_F(SenderTest, LostParentIsToldWithoutMemory) {
  RouterPeer peer;
  table.AddParent(kLongName);
  RouterTableEntry& parent = *table.Parent();
  parent.LogonRouter(parent.Name(), peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  Enqueue(parent, Stored(1));
  const unsigned before = host.LinksLost();
  VisitThatFailsWithoutMemory(parent, peer);
  EXPECT_EQ(host.LinksLost(), before + 1);
}

TEST_F(SenderTest, CertificateExpiredIsLoggedAsSuchAndLogsThePeerOffWithoutARepetition) {
  RouterPeer peer;
  RouterTableEntry& entry = APushedRouter(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [](int) { throw BrelixMessaging::CertificateExpired(); };
  Visit(entry);
  EXPECT_EQ(peer->count, 1);
  EXPECT_TRUE(log.Contains("certificate expiry\n"));
  EXPECT_FALSE(entry.IsLoggedOn());
  EXPECT_THAT(Waiting(entry), ElementsAre(1u));
}

TEST_F(SenderTest, MaximumToSendEndsTheVisitAndPutsThePeerAtTheBackOfThePool) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  for (std::uint32_t id = 1; id <= 3; ++id) Enqueue(entry, Stored(id));
  SetConfigInt("MaximumToSend", 2);
  host.ForgetOffers();
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u, 2u));
  EXPECT_THAT(host.Senders(), ElementsAre(&entry));
}

TEST_F(SenderTest, MaximumToSendCountsAnewAndIsReadAnewAtEachVisit) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  for (std::uint32_t id = 1; id <= 4; ++id) Enqueue(entry, Stored(id));
  SetConfigInt("MaximumToSend", 1);
  Visit(entry);
  EXPECT_THAT(peer->received, SizeIs(1));
  SetConfigInt("MaximumToSend", 2);
  Visit(entry);
  EXPECT_THAT(peer->received, SizeIs(3));
}

TEST_F(SenderTest, MaximumToSendOfZeroSendsNothingAndOffersTheEntryAgain) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Expired(1));
  Enqueue(entry, Stored(2));
  SetConfigInt("MaximumToSend", 0);
  host.ForgetOffers();
  Visit(entry);
  EXPECT_EQ(peer->count, 0);
  EXPECT_THAT(host.Senders(), ElementsAre(&entry));
  Visit(entry);
  EXPECT_THAT(host.Senders(), ElementsAre(&entry, &entry));
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
}

TEST_F(SenderTest, QueueOfExpiredEnvelopesIsDrainedInOneVisitWhateverMaximumToSendSays) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  for (std::uint32_t id = 1; id <= 3; ++id) Enqueue(entry, Expired(id).WithType("Status.Report"));
  SetConfigInt("MaximumToSend", 1);
  Visit(entry);
  EXPECT_EQ(peer->count, 0);
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_FALSE(OnDisk(1) || OnDisk(2) || OnDisk(3));
  EXPECT_EQ(log.Count("Delivery failed(Timeout) for message type Status.Report"), 3u);
}

TEST_F(SenderTest, ExpiredEnvelopeDoesNotUseUpMaximumToSend) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Expired(1));
  Enqueue(entry, Stored(2));
  Enqueue(entry, Stored(3));
  SetConfigInt("MaximumToSend", 1);
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(2u));
}

TEST_F(SenderTest, StopBetweenTwoEnvelopesLeavesTheRestQueuedAndOffersTheEntry) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  host.ForgetOffers();
  SenderWorker worker(pool);
  peer->onCall = [&](int) { worker.RequestStop(); };
  worker.ProcessEntry(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u));
  EXPECT_THAT(host.Senders(), ElementsAre(&entry));
  EXPECT_THAT(Waiting(entry), ElementsAre(2u));
}

TEST_F(SenderTest, PeerThatLogsOffMeanwhileGetsNoMore) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  peer->onCall = [&](int) { entry.Logoff(); };
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u));
  EXPECT_FALSE(log.Contains("logging agent off"));
  EXPECT_THAT(Waiting(entry), ElementsAre(2u));
}

TEST_F(SenderTest, BrokenEnvelopeIsDroppedWithoutLoggingThePeerOffOrStoppingTheLoop) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Broken(1).WithType("Status.Report"));
  Enqueue(entry, Stored(2));
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(2u));
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_FALSE(OnDisk(1));
  EXPECT_TRUE(log.Has(kLogError, "Discarding invalid envelope id=00000001, type=Status.Report\n"));
}

TEST_F(SenderTest, EnvelopeThatNoPeerCouldTakeIsDroppedWithoutLoggingThePeerOff) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1).WithOptions(std::string(std::size_t{4} << 20, 'x')));
  Enqueue(entry, Stored(2));
  MessageRouter::Settings::SetLargest({1000, 1000});
  Visit(entry);
  MessageRouter::Settings::Forget();
  EXPECT_THAT(peer->received, ElementsAre(2u));
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_FALSE(OnDisk(1));
}

TEST_F(SenderTest, BrokenEnvelopeUsesUpMaximumToSend) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Broken(1));
  Enqueue(entry, Stored(2));
  SetConfigInt("MaximumToSend", 1);
  Visit(entry);
  EXPECT_EQ(peer->count, 0);
  EXPECT_THAT(Waiting(entry), ElementsAre(2u));
}

TEST_F(SenderTest, PeerThatIsNotLoggedOnIsLeftAlone) {
  RouterTableEntry& entry = AClient();
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_FALSE(log.Contains("logging agent off"));
  EXPECT_THAT(Waiting(entry), ElementsAre(1u));
}

TEST_F(SenderTest, PeerWithNoneOfTheThreeReferencesIsAVisitThatDoesNothing) {
  RouterTableEntry& entry = AClient();
  entry.LogonClient(entry.Name(), BrelixMessaging::EnvelopeConsumer::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  Enqueue(entry, Stored(1));
  Visit(entry);
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kNoNotification);
  EXPECT_THAT(Waiting(entry), ElementsAre(1u));
}

TEST_F(SenderTest, BusyPeerIsLeftToItsSender) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  ASSERT_TRUE(entry.ClaimForSending().acquired);
  Visit(entry);
  EXPECT_EQ(peer->count, 0);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushBusy);
  EXPECT_EQ(Failures(), 0u);
}

TEST_F(SenderTest, SecondVisitDoesNotWaitForTheFirst) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  std::binary_semaphore called(0);
  std::binary_semaphore answer(0);
  peer->onCall = [&](int) {
    called.release();
    answer.acquire();
  };
  std::thread first([&] { Visit(entry); });
  called.acquire();
  Enqueue(entry, Stored(2));
  Visit(entry);
  EXPECT_EQ(peer->count, 1);
  peer->onCall = nullptr;
  answer.release();
  first.join();
  EXPECT_THAT(peer->received, ElementsAre(1u, 2u));
}

TEST_F(SenderTest, EnvelopeOfAPeerThatWasUnregisteredMeanwhileIsRoutedAnew) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [&](int call) {
    if (call == 1) table.Unregister("agent");
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_EQ(routing.RouteQueueSize(), 1u);
  EXPECT_TRUE(OnDisk(1));
}

TEST_F(SenderTest, EnvelopeStaysOnDiskWhereNoCycleRunsAnyMore) {
  ClientPeer peer;
  RouterTableEntry& entry = APushedClient(peer);
  Enqueue(entry, Stored(1));
  MessageRouter::Cycle::Set(nullptr);
  peer->onCall = [&](int call) {
    if (call == 1) table.Unregister("agent");
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_TRUE(OnDisk(1));
}

}  // namespace
}  // namespace DeliveryTests
