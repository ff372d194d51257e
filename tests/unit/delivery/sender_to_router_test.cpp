// What a sender makes of the failures of a router that is pushed to.
#include "fixture.h"

namespace DeliveryTests {
namespace {

using MessageRouter::kLogError;
using MessageRouter::kLogInfo;
using testing::ElementsAre;
using testing::IsEmpty;

struct Failure {
  const char* name;
  void (*raise)();
  int calls;           // a system exception is answered by a repetition
  const char* logged;  // of the exception
};

class RouterFailureTest : public DeliveryTest, public testing::WithParamInterface<Failure> {};

TEST_P(RouterFailureTest, PutsTheEnvelopeBackAndLogsTheRouterOff) {
  RouterPeer peer;
  RouterTableEntry& entry = APushedRouter(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  peer->onCall = [](int) { GetParam().raise(); };
  Visit(entry);
  EXPECT_EQ(peer->count, GetParam().calls);
  EXPECT_THAT(peer->received, IsEmpty());
  EXPECT_EQ(entry.GetLogonState(), RouterTableEntry::kLoggedOff);
  EXPECT_TRUE(entry.IsRegistered());
  EXPECT_TRUE(log.Has(kLogError,
                      "Failed to send message (id=00000001) because of unknown exception, adding "
                      "message back to queue\n"));
  EXPECT_TRUE(log.Contains(GetParam().logged));
  EXPECT_TRUE(log.Has(kLogError, "Failed to send messages, logging child off\n"));
  EXPECT_TRUE(OnDisk(1));
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
}

TEST_P(RouterFailureTest, OfTheFirstCallAloneIsADeliveryOnlyAfterARepetition) {
  RouterPeer peer;
  RouterTableEntry& entry = APushedRouter(peer);
  Enqueue(entry, Stored(1));
  peer->onCall = [](int call) {
    if (call == 1) GetParam().raise();
  };
  Visit(entry);
  const bool repeated = GetParam().calls == 2;
  EXPECT_EQ(peer->count, GetParam().calls);
  EXPECT_EQ(entry.IsLoggedOn(), repeated);
  EXPECT_EQ(OnDisk(1), !repeated);
  EXPECT_EQ(entry.HasEnvelopes(), !repeated);
  EXPECT_EQ(log.Has(kLogInfo, "Sent message (id=00000001) to child\n"), repeated);
}

TEST_P(RouterFailureTest, LeavesWhatWaitsForTheNextLogon) {
  RouterPeer peer;
  RouterTableEntry& entry = APushedRouter(peer);
  Enqueue(entry, Stored(1));
  Enqueue(entry, Stored(2));
  peer->onCall = [](int call) {
    if (call <= GetParam().calls) GetParam().raise();
  };
  Visit(entry);
  entry.LogonRouter("child", peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                    BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  Visit(entry);
  EXPECT_THAT(peer->received, ElementsAre(1u, 2u));
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushIdle);
}

INSTANTIATE_TEST_SUITE_P(
    Exceptions, RouterFailureTest,
    testing::Values(Failure{"Rejected", [] { throw BrelixMessaging::Rejected(); }, 1,
                            "SenderWorker: Caught CORBA"},
                    Failure{"NotLoggedOn", [] { throw BrelixMessaging::NotLoggedOn(); }, 1,
                            "SenderWorker: Caught CORBA"},
                    Failure{"CertificateExpired",
                            [] { throw BrelixMessaging::CertificateExpired(); }, 1,
                            "certificate expiry\n"},
                    Failure{"SystemException",
                            [] { throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_MAYBE); }, 2,
                            "SenderWorker: Caught CORBA"}),
    [](const testing::TestParamInfo<Failure>& info) { return std::string(info.param.name); });

using RouterSenderTest = DeliveryTest;

TEST_F(RouterSenderTest, AParentThatFailsIsLoggedOffAndTheLinkIsReportedLost) {
  RouterPeer peer;
  table.AddParent("boss");
  RouterTableEntry& parent = *table.Parent();
  parent.LogonRouter("boss", peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                     BrelixMessaging::NotifyConsumer::_nil(), 0, true);
  const unsigned before = host.LinksLost();
  Enqueue(parent, Stored(1));
  peer->UnreachableFor(2);
  Visit(parent);
  EXPECT_FALSE(parent.IsLoggedOn());
  EXPECT_EQ(host.LinksLost(), before + 1);
  EXPECT_THAT(Waiting(parent), ElementsAre(1u));
}

}  // namespace
}  // namespace DeliveryTests
