#include "servants/EnvelopeSupplier_i.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "ServantWorld.h"
#include "broker/Gate.h"
#include "support/FakeClock.h"
#include "support/FakePeers.h"
#include "support/NoDescriptors.h"

namespace ServantTests {
namespace {

using BrelixMessaging::Envelope_var;
using BrelixMessaging::NoEnvelope;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::Rejected;
using MessageRouter::kLogError;
using MessageRouter::kLogInfo;
using MessageRouter::kLogTrace;
using MessageRouter::RouterTableEntry;
using RouterServants::EnvelopeSupplier_i;

class EnvelopeSupplierTest : public ServantWorld {
 protected:
  // All envelope files become unreadable.
  void BreakFiles() {
    for (const auto& file : std::filesystem::directory_iterator(store.Directory())) {
      std::filesystem::remove(file);
    }
  }
  // An envelope that came from a router as `originator`'s, with the id 77.
  void QueueFrom(const std::string& originator, const std::string& name) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.originator = originator.c_str();
    MessageRouter::Envelope envelope;
    envelope.CreateFromRouter(wire, false);
    ASSERT_TRUE(Entry(name).Enqueue(envelope, name));
  }
  // `name` is logged on as a puller that can be notified, and a notification is under way while
  // nothing waits.
  void StartNotification(const std::string& name) {
    LogOnClient(name, notifier.Reference());
    QueueFor(name);
    ASSERT_TRUE(Entry(name).NotificationWanted(Entry(name).Generation()).acquired);
    MessageRouter::Envelope envelope;
    ASSERT_TRUE(Entry(name).PopNext(envelope));
    ASSERT_EQ(Entry(name).GetConsumerState(), RouterTableEntry::kNotifying);
  }

  TestSupport::NotifyPeer notifier;
  PortableServer::Servant_var<EnvelopeSupplier_i> forClients{new EnvelopeSupplier_i(false)};
  PortableServer::Servant_var<EnvelopeSupplier_i> forRouters{new EnvelopeSupplier_i(true)};
};

// GetEnvelope

TEST_F(EnvelopeSupplierTest, GetEnvelopeSuppliesWhatWaitsForTheCaller) {
  LogOnClient("agent-1");
  const std::uint32_t id = QueueFor("agent-1");
  const CallFrom call("agent-1");
  const Envelope_var wire = forClients->GetEnvelope();
  EXPECT_EQ(static_cast<std::uint32_t>(wire->message_id), id);
  EXPECT_STREQ(wire->client_info.type, "Text");
  EXPECT_TRUE(log.Has(kLogTrace, "EnvelopeSupplier::GetEnvelope() called\n"));
  char line[80];
  std::snprintf(line, sizeof line, "Supplying message (id=%08X) to agent-1\n", id);
  EXPECT_TRUE(log.Has(kLogInfo, line));
}

TEST_F(EnvelopeSupplierTest, TwiceGetEnvelopeWithoutAnAcknowledgementGivesTheSameEnvelope) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  QueueFor("agent-1");
  const CallFrom call("agent-1");
  const Envelope_var first = forClients->GetEnvelope();
  const Envelope_var second = forClients->GetEnvelope();
  EXPECT_EQ(first->message_id, second->message_id);
}

TEST_F(EnvelopeSupplierTest, AnEmptyQueueRaisesNoEnvelope) {
  LogOnClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), NoEnvelope);
  EXPECT_TRUE(
      log.Has(kLogTrace, "EnvelopeSupplier::GetEnvelope() - no envelope to supply for agent-1\n"));
}

TEST_F(EnvelopeSupplierTest, AnEmptyPullDuringANotificationIsRemembered) {
  StartNotification("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), NoEnvelope);
  EXPECT_EQ(Entry("agent-1").GetConsumerState(), RouterTableEntry::kNotifyingPulledEmpty);
}

TEST_F(EnvelopeSupplierTest, AnEmptyPullInAnyOtherStateLeavesTheStateAlone) {
  LogOnClient("agent-1", notifier.Reference());
  LogOnClient("agent-2");
  const TestSupport::ClientPeer consumer;
  for (const char* const name : {"idle", "busy", "failed"}) {
    RegisterClient(name);
    Entry(name).LogonClient(name, consumer.Reference(), BrelixMessaging::NotifyConsumer::_nil(), 0,
                            true);
  }
  ASSERT_TRUE(Entry("busy").ClaimForSending().acquired);
  ASSERT_TRUE(Entry("failed").SendFailed(Entry("failed").ClaimForSending()));
  const std::pair<const char*, MessageRouter::ConsumerSide::States> cases[] = {
      {"agent-1", RouterTableEntry::kNothingSent}, {"agent-2", RouterTableEntry::kNoNotification},
      {"idle", RouterTableEntry::kPushIdle},       {"busy", RouterTableEntry::kPushBusy},
      {"failed", RouterTableEntry::kPushFailed},
  };
  for (const auto& [name, state] : cases) {
    ASSERT_EQ(Entry(name).GetConsumerState(), state) << name;
    const CallFrom call(name);
    EXPECT_THROW(forClients->GetEnvelope(), NoEnvelope) << name;
    EXPECT_EQ(Entry(name).GetConsumerState(), state) << name;
  }
}

TEST_F(EnvelopeSupplierTest, OriginatorsGoQualifiedToRoutersAndAsStoredToClients) {
  LogOnRouter("child-1");
  QueueFrom("agent-9", "child-1");
  const CallFrom call("child-1", {kRouterRole});
  const Envelope_var plain = forClients->GetEnvelope();
  EXPECT_STREQ(plain->originator, "agent-9");
  const Envelope_var qualified = forRouters->GetEnvelope();
  EXPECT_STREQ(qualified->originator, "router-1.agent-9");
}

TEST_F(EnvelopeSupplierTest, ACallerThatIsLoggedOffGetsRejectedAndNotNotLoggedOn) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_TRUE(
      log.Has(kLogError, "Failed to supply message (id=00000000) because of unknown exception\n"));
}

TEST_F(EnvelopeSupplierTest, ACallerThatIsLoggedOffLeavesWhatWaitsForIt) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  Entry("agent-1").Logoff();
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_TRUE(Entry("agent-1").HasEnvelopes());
  EXPECT_EQ(EnvelopeFiles(), 1u);
}

TEST_F(EnvelopeSupplierTest, WithoutACycleNothingIsSuppliedOrAcknowledged) {
  LogOnClient("agent-1");
  const auto id = static_cast<BrelixMessaging::MessageId>(QueueFor("agent-1"));
  const CallFrom call("agent-1");
  MessageRouter::Cycle::Set(nullptr);
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_THROW(forClients->AcknowledgeEnvelope("router-1.sender", id), Rejected);
  EXPECT_TRUE(Entry("agent-1").HasEnvelopes());
}

TEST_F(EnvelopeSupplierTest, AStrangerIsRejected) {
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_TRUE(
      log.Has(kLogError, "Failed to supply message (id=00000000) because of unknown exception\n"));
}

TEST_F(EnvelopeSupplierTest, AnEnvelopeWhoseStoredDataIsBrokenIsRejectedAndGone) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  const std::uint32_t whole = QueueFor("agent-1", "sender", 1);
  ASSERT_EQ(EnvelopeFiles(), 2u);
  MessageRouter::Envelope broken;
  ASSERT_TRUE(Entry("agent-1").PeekNext(broken, "agent-1"));
  std::filesystem::remove(broken.FileName());

  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_TRUE(log.Contains("EnvelopeSupplier_i: Caught "));
  EXPECT_TRUE(log.Contains("Discarding invalid envelope "));
  EXPECT_FALSE(log.Contains("Failed to supply message"));
  const Envelope_var next = forClients->GetEnvelope();
  EXPECT_EQ(static_cast<std::uint32_t>(next->message_id), whole);
}

TEST_F(EnvelopeSupplierTest, ABrokenEnvelopeLeavesTheQueueOfARouterToo) {
  LogOnRouter("child-1");
  QueueFrom("agent-9", "child-1");
  BreakFiles();
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(forRouters->GetEnvelope(), Rejected);
  EXPECT_FALSE(Entry("child-1").HasEnvelopes());
}

// With one place for all, an inner operation that took one would wait for ever.
TEST_F(EnvelopeSupplierTest, DroppingABrokenEnvelopeTakesNoSecondPlaceAtTheGate) {
  Broker::Gate::SetWidth(1);
  LogOnClient("agent-1");
  QueueFor("agent-1");
  BreakFiles();
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  Broker::Gate::SetWidth(4);
  EXPECT_FALSE(Entry("agent-1").HasEnvelopes());
}

TEST_F(EnvelopeSupplierTest, AnotherFailureIsRejectedAndTheEnvelopeStays) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  const NamelessCall call;
  EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  EXPECT_TRUE(log.Contains("EnvelopeSupplier_i: Caught No common name in certificate"));
  EXPECT_TRUE(log.Has(kLogError,
                      "Failed to supply message (id=00000000) because of exception: No common name "
                      "in certificate\n"));
  EXPECT_FALSE(log.Contains("Discarding"));
  EXPECT_TRUE(Entry("agent-1").HasEnvelopes());
}

TEST_F(EnvelopeSupplierTest, AnEnvelopeWhoseFileCannotBeReadAtPresentStaysAndIsSuppliedLater) {
  LogOnClient("agent-1");
  const std::uint32_t id = QueueFor("agent-1");
  const CallFrom call("agent-1");
  {
    const TestSupport::NoDescriptors none;
    EXPECT_THROW(forClients->GetEnvelope(), Rejected);
  }
  EXPECT_TRUE(log.Contains("cannot be read at present"));
  char line[80];
  std::snprintf(line, sizeof line, "Failed to supply message (id=%08X) because of exception: ", id);
  EXPECT_TRUE(log.Contains(line));
  EXPECT_FALSE(log.Contains("Discarding"));
  const Envelope_var wire = forClients->GetEnvelope();
  EXPECT_EQ(static_cast<std::uint32_t>(wire->message_id), id);
}

TEST_F(EnvelopeSupplierTest, TheObjectOfARouterQualifiesAndThatOfAClientDoesNot) {
  LogOnRouter("child-1");
  QueueFrom("agent-9", "child-1");
  const CallFrom call("child-1", {kRouterRole});
  const auto originatorAt = [this](CORBA::Object_ptr object) -> std::string {
    const PortableServer::ServantBase_var servant =
        adapters.transient->reference_to_servant(object);
    const Envelope_var wire = dynamic_cast<EnvelopeSupplier_i&>(*servant.in()).GetEnvelope();
    return wire->originator.in();
  };
  const BrelixMessaging::EnvelopeSupplier_var client = host.Objects().CreateClientSupplier();
  const BrelixMessaging::RouterSupplier_var router = host.Objects().CreateRouterSupplier();
  EXPECT_EQ(originatorAt(client), "agent-9");
  EXPECT_EQ(originatorAt(router), "router-1.agent-9");
}

// AcknowledgeEnvelope

TEST_F(EnvelopeSupplierTest, AnAcknowledgementEndsTheEnvelopesLife) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  const CallFrom call("agent-1");
  const Envelope_var wire = forClients->GetEnvelope();
  forClients->AcknowledgeEnvelope(wire->originator, wire->message_id);
  EXPECT_FALSE(Entry("agent-1").HasEnvelopes());
  EXPECT_EQ(EnvelopeFiles(), 0u);
  EXPECT_TRUE(log.Has(kLogTrace, "EnvelopeSupplier::AcknowledgeEnvelope() called\n"));
}

TEST_F(EnvelopeSupplierTest, ASecondAcknowledgementGetsNoEnvelope) {
  LogOnClient("agent-1");
  QueueFor("agent-1");
  const CallFrom call("agent-1");
  const Envelope_var wire = forClients->GetEnvelope();
  forClients->AcknowledgeEnvelope(wire->originator, wire->message_id);
  EXPECT_THROW(forClients->AcknowledgeEnvelope(wire->originator, wire->message_id), NoEnvelope);
}

TEST_F(EnvelopeSupplierTest, TheQualifiedFormIsAcceptedFromARouterAndNotFromAClient) {
  LogOnRouter("child-1");
  QueueFrom("agent-9", "child-1");
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(forClients->AcknowledgeEnvelope("router-1.agent-9", 77), NoEnvelope);
  EXPECT_TRUE(Entry("child-1").HasEnvelopes());
  EXPECT_NO_THROW(forRouters->AcknowledgeEnvelope("router-1.agent-9", 77));
  EXPECT_FALSE(Entry("child-1").HasEnvelopes());
}

TEST_F(EnvelopeSupplierTest, ARouterCanAcknowledgeWhateverOriginatorItWasGiven) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  for (const char* const originator :
       {"", ".", "agent-9", "router-1", "router-1.", "router-1.agent-9", "router-1.router-1.x"}) {
    QueueFrom(originator, "child-1");
    const Envelope_var wire = forRouters->GetEnvelope();
    EXPECT_NO_THROW(forRouters->AcknowledgeEnvelope(wire->originator, wire->message_id))
        << originator;
    EXPECT_FALSE(Entry("child-1").HasEnvelopes()) << originator;
  }
}

TEST_F(EnvelopeSupplierTest, AnEnvelopeThatIsNamedLikeAWaitingOneIsNotAcknowledgedInItsPlace) {
  LogOnRouter("child-1");
  QueueFrom("agent-1", "child-1");           // another router's invention
  QueueFrom("router-1.agent-1", "child-1");  // the same id, from our client
  const CallFrom call("child-1", {kRouterRole});
  const Envelope_var wire = forRouters->GetEnvelope();
  ASSERT_STREQ(wire->originator, "router-1.agent-1");
  forRouters->AcknowledgeEnvelope(wire->originator, wire->message_id);
  MessageRouter::Envelope left;
  ASSERT_TRUE(Entry("child-1").PeekNext(left, "child-1"));
  EXPECT_EQ(left.Originator(), "router-1.agent-1");
}

TEST_F(EnvelopeSupplierTest, ARoutersAcknowledgementOfNothingGetsNoEnvelope) {
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(forRouters->AcknowledgeEnvelope("router-1.agent-9", 77), NoEnvelope);
}

TEST_F(EnvelopeSupplierTest, AnAcknowledgementOfALoggedOffCallerIsNotLoggedOn) {
  RegisterClient("agent-1");
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->AcknowledgeEnvelope("sender", 1), NotLoggedOn);
}

TEST_F(EnvelopeSupplierTest, AFaultDuringAnAcknowledgementIsRejectedAndLogged) {
  const NamelessCall call;
  EXPECT_THROW(forClients->AcknowledgeEnvelope("sender", 1), Rejected);
  EXPECT_TRUE(log.Has(kLogError,
                      "EnvelopeSupplier::AcknowledgeEnvelope() caught No common name in "
                      "certificate\n"));
}

TEST_F(EnvelopeSupplierTest, AnAcknowledgementWithoutACertificateIsRejected) {
  LogOnClient("agent-1");
  const auto id = static_cast<BrelixMessaging::MessageId>(QueueFor("agent-1"));
  const AnonymousCall call;
  EXPECT_THROW(forClients->AcknowledgeEnvelope("router-1.sender", id), Rejected);
  EXPECT_TRUE(Entry("agent-1").HasEnvelopes());
}

TEST_F(EnvelopeSupplierTest, AnAcknowledgementOfAStrangerIsRejected) {
  const CallFrom call("agent-1");
  EXPECT_THROW(forClients->AcknowledgeEnvelope("sender", 1), Rejected);
}

// Heartbeat, and what counts as a pull

TEST_F(EnvelopeSupplierTest, HeartbeatReturnsNormallyForEveryCaller) {
  {
    const CallFrom call("agent-1");
    EXPECT_NO_THROW(forRouters->Heartbeat());
  }
  {
    const AnonymousCall call;
    EXPECT_NO_THROW(forRouters->Heartbeat());
  }
  {
    const NamelessCall call;
    EXPECT_NO_THROW(forRouters->Heartbeat());
  }
  MessageRouter::Cycle::Set(nullptr);
  const CallFrom call("agent-1");
  EXPECT_NO_THROW(forRouters->Heartbeat());
  EXPECT_EQ(log.Count("EnvelopeSupplier::Heartbeat() called\n"), 4u);
}

TEST_F(EnvelopeSupplierTest, EachOperationCountsAsAPull) {
  TestSupport::FakeClock clock;
  LogOnRouter("child-1");
  const CallFrom call("child-1", {kRouterRole});
  const auto letItTimeOut = [&] {
    clock.Advance(std::chrono::seconds(1801));
    ASSERT_TRUE(Entry("child-1").PullTimedOut());
  };
  letItTimeOut();
  forRouters->Heartbeat();
  EXPECT_FALSE(Entry("child-1").PullTimedOut());
  letItTimeOut();
  EXPECT_THROW(forRouters->GetEnvelope(), NoEnvelope);
  EXPECT_FALSE(Entry("child-1").PullTimedOut());
  letItTimeOut();
  EXPECT_THROW(forRouters->AcknowledgeEnvelope("x", 1), NoEnvelope);
  EXPECT_FALSE(Entry("child-1").PullTimedOut());
}

}  // namespace
}  // namespace ServantTests
