#include "fixture.h"
#include "support/AllocationFailure.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using EntryQueueTest = RoutingTest;

TEST_F(EntryQueueTest, OlderOfEqualPriorityLeavesFirst) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AnEnvelope().WithPriority(5).WithId(1));
  Enqueue(entry, AnEnvelope().WithPriority(5).WithId(2));
  Enqueue(entry, AnEnvelope().WithPriority(6).WithId(3));
  EXPECT_THAT(Drain(entry), ElementsAre(3, 1, 2));
}

TEST_F(EntryQueueTest, PeekLeavesTheEnvelopeUntilItIsAcknowledged) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AnEnvelope().WithId(1));
  Enqueue(entry, AnEnvelope().WithId(2));
  Envelope out;
  ASSERT_TRUE(entry.PeekNext(out, entry.Name()));
  ASSERT_TRUE(entry.PeekNext(out, entry.Name()));
  EXPECT_EQ(out.MessageId(), 1u);
  EXPECT_TRUE(entry.Cancel(out.Originator(), 1));
  ASSERT_TRUE(entry.PeekNext(out, entry.Name()));
  EXPECT_EQ(out.MessageId(), 2u);
}

TEST_F(EntryQueueTest, WhoeverAsksUnderAFormerNameGetsNothingOfTheNewPeers) {
  Entry& entry = AClient("former");
  table_.Unregister("former");
  table_.AddCertificationEntry("new");
  ASSERT_EQ(table_.Find("new"), &entry);
  entry.LogonCertification("new");
  Enqueue(entry, AStoredEnvelope("1.msg")
                     .WithId(1)
                     .WithOriginator("router1.a")
                     .WithType("Certification.CertRequest-Response"));
  Envelope out;
  EXPECT_THROW(entry.PeekNext(out, "former"), BrelixMessaging::Rejected);
  EXPECT_THROW(entry.PeekCertification(out, "former"), BrelixMessaging::Rejected);
  EXPECT_THROW(entry.CancelSupplied({"router1.a"}, 1, "former"), BrelixMessaging::Rejected);
  EXPECT_EQ(out.MessageId(), 0u);
  EXPECT_TRUE(FileExists("1.msg"));
  EXPECT_TRUE(entry.CancelSupplied({"router1.a"}, 1, "new"));
  EXPECT_FALSE(entry.CancelSupplied({"router1.a"}, 1, "new"));
}

TEST_F(EntryQueueTest, AnEmptyQueueGivesNothing) {
  Entry& entry = AClient("agent");
  Envelope out;
  EXPECT_FALSE(entry.PopNext(out));
  EXPECT_FALSE(entry.PeekNext(out, entry.Name()));
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_FALSE(entry.Cancel("router1.sender", 1));
  EXPECT_THAT(entry.TakeAll(), IsEmpty());
}

TEST_F(EntryQueueTest, PeekCertificationPassesOverOrdinaryEnvelopesAndThrowsWithoutOne) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AnEnvelope().WithId(1).WithPriority(9));
  Envelope out;
  try {
    entry.PeekCertification(out, entry.Name());
    FAIL();
  } catch (const MessageRouter::NoCertificationMessage& exception) {
    EXPECT_STREQ(exception.what(), "No Certification message");
  }
  Enqueue(entry, AnEnvelope().WithId(2).WithType("Certification.CertRequest-Response"));
  entry.PeekCertification(out, entry.Name());
  EXPECT_EQ(out.MessageId(), 2u);
}

TEST_F(EntryQueueTest, CancelRetiresTheEnvelopeOfThatIdAndExactlyThatOriginator) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AStoredEnvelope("1.msg").WithId(1).WithOriginator("router1.a"));
  Enqueue(entry, AStoredEnvelope("2.msg").WithId(1).WithOriginator("router1.b"));
  EXPECT_FALSE(entry.Cancel("router1.A", 1));
  EXPECT_TRUE(entry.Cancel("router1.b", 1));
  EXPECT_TRUE(FileExists("1.msg"));
  EXPECT_FALSE(FileExists("2.msg"));
  EXPECT_FALSE(entry.Cancel("router1.b", 1));
}

// The file stays where its name can't be made.
TEST_F(EntryQueueTest, WhatIsCancelledIsSoThoughThereIsNoMemoryToRemoveItsFile) {
  Entry& entry = AClient("agent");
  const std::vector<std::string> originators = {"router1.a"};
  Enqueue(entry, AStoredEnvelope("1.msg").WithId(1).WithOriginator(originators.front()));
  Enqueue(entry, AStoredEnvelope("2.msg").WithId(2).WithOriginator(originators.front()));
  {
    const AllocationFailure failure;
    EXPECT_TRUE(entry.Cancel(originators.front(), 1));
    EXPECT_TRUE(entry.CancelSupplied(originators, 2, "agent"));
    EXPECT_TRUE(AllocationFailure::Happened());
  }
  EXPECT_FALSE(entry.HasEnvelopes());
  EXPECT_TRUE(FileExists("1.msg"));
  EXPECT_TRUE(FileExists("2.msg"));
}

TEST_F(EntryQueueTest, OfTheFormsOfAnOriginatorTheOneThatWasSuppliedIsMeant) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AStoredEnvelope("1.msg").WithId(1).WithOriginator("a"));
  Enqueue(entry, AStoredEnvelope("2.msg").WithId(1).WithOriginator("router1.a"));
  EXPECT_TRUE(entry.CancelSupplied({"router1.a", "a"}, 1, "agent"));
  EXPECT_FALSE(FileExists("1.msg"));
  EXPECT_TRUE(FileExists("2.msg"));
}

TEST_F(EntryQueueTest, BehindTheNextEnvelopeTheFirstFormThatIsThereIsTaken) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AStoredEnvelope("0.msg").WithId(2));
  Enqueue(entry, AStoredEnvelope("1.msg").WithId(1).WithOriginator("a"));
  Enqueue(entry, AStoredEnvelope("2.msg").WithId(1).WithOriginator("router1.a"));
  EXPECT_TRUE(entry.CancelSupplied({"router1.a", "a"}, 1, "agent"));
  EXPECT_TRUE(FileExists("1.msg"));
  EXPECT_FALSE(FileExists("2.msg"));
  EXPECT_TRUE(entry.CancelSupplied({"router1.a", "a"}, 1, "agent"));
  EXPECT_FALSE(FileExists("1.msg"));
}

TEST_F(EntryQueueTest, RetireExpiredReportsATimeoutAndRemovesTheFile) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AStoredEnvelope("1.msg").WithTtl(clock_.WallSeconds() - 1).WithType("T"));
  Enqueue(entry, AStoredEnvelope("2.msg").WithTtl(clock_.WallSeconds() + 1).WithId(2));
  entry.RetireExpired();
  EXPECT_TRUE(log_.Contains("Delivery failed(Timeout) for message type T, originator"));
  EXPECT_FALSE(FileExists("1.msg"));
  EXPECT_TRUE(FileExists("2.msg"));
  EXPECT_THAT(Drain(entry), ElementsAre(2));
}

TEST_F(EntryQueueTest, RetireExpiredLeavesNoExpiredOneHoweverMany) {
  Entry& entry = AClient("agent");
  for (std::uint32_t id = 0; id < 2500; ++id) {
    Enqueue(entry, AnEnvelope().WithId(id).WithTtl(clock_.WallSeconds() - 1));
  }
  entry.RetireExpired();
  EXPECT_FALSE(entry.HasEnvelopes());
}

// Whichever allocation it is.
TEST_F(EntryQueueTest, OneThatFailsCostsRetireExpiredOneEnvelopeAtMost) {
  Entry& entry = AClient("agent");
  bool complete = false;
  for (std::size_t successes = 0; !complete; ++successes) {
    for (const char* leaf : {"1.msg", "2.msg"}) {
      Enqueue(entry, AStoredEnvelope(leaf)
                         .WithTtl(clock_.WallSeconds() - 1)
                         .WithType("Status.Report.OfSomethingLong"));
    }
    {
      const AllocationFailure failure(successes, 1);
      EXPECT_NO_THROW(entry.RetireExpired());
      complete = !AllocationFailure::Happened();
    }
    // A file that is in no queue any more is left to the next start.
    const std::size_t well =
        Drain(entry).size() + (FileExists("1.msg") ? 0 : 1) + (FileExists("2.msg") ? 0 : 1);
    EXPECT_GE(well, complete ? 2u : 1u) << successes;
  }
}

TEST_F(EntryQueueTest, TakesNothingOnceItIsUnregistered) {
  Entry& entry = AClient("agent");
  table_.Unregister("agent");
  EXPECT_FALSE(entry.Enqueue(AnEnvelope(), "agent"));
  MessageRouter::EnvelopeQueue::Taken taken(AnEnvelope().WithId(1).Build());
  EXPECT_FALSE(entry.Requeue(taken, "agent"));
  EXPECT_EQ(taken.Get().MessageId(), 1u);
  EXPECT_FALSE(entry.HasEnvelopes());
}

TEST_F(EntryQueueTest, TakesNothingUnderANameThatItHasNoMore) {
  table_.AddCertificationEntry("old");
  Entry& entry = *table_.Find("old");
  entry.LogonCertification("old");
  EXPECT_TRUE(entry.Enqueue(AnEnvelope().WithId(1), "old"));
  entry.LogoffCertification();
  table_.AddCertificationEntry("new");
  ASSERT_EQ(table_.Find("new"), &entry);
  entry.LogonCertification("new");
  EXPECT_FALSE(entry.Enqueue(AnEnvelope(), "old"));
  MessageRouter::EnvelopeQueue::Taken taken(AnEnvelope().WithId(2).Build());
  EXPECT_FALSE(entry.Requeue(taken, "old"));
  EXPECT_TRUE(entry.Requeue(taken, "new"));
  EXPECT_THAT(Drain(entry), ElementsAre(2));
}

TEST_F(EntryQueueTest, AQueueStaysWithAnUnregisteredEntry) {
  Entry& entry = AClient("agent");
  Enqueue(entry, AnEnvelope().WithId(1));
  table_.Unregister("agent");
  EXPECT_TRUE(entry.HasEnvelopes());
}

TEST_F(EntryQueueTest, ALockThatFailsMakesAQueryFalseAndAnUpdateANoOp) {
  Entry& entry = AClient("agent");
  const Envelope envelope = AnEnvelope();
  Envelope out;
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(entry.Enqueue(envelope, "agent"));
  EXPECT_FALSE(entry.HasEnvelopes());
  Enqueue(entry, envelope);
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(entry.HasEnvelopes());
  ThreadHelper::FailNextLocks(1);
  EXPECT_FALSE(entry.PopNext(out));
  ThreadHelper::FailNextLocks(1);
  EXPECT_TRUE(table_.Find("agent") == nullptr);
  EXPECT_TRUE(entry.HasEnvelopes());
}

TEST_F(EntryQueueTest, WhoIsToldToStopRetiresNoMoreThanOneHandful) {
  Entry& entry = AClient("agent");
  for (std::uint32_t id = 0; id < 1500; ++id) {
    Enqueue(entry, AnEnvelope().WithId(id).WithTtl(clock_.WallSeconds() - 1));
  }
  entry.RetireExpired([] { return false; });
  EXPECT_EQ(log_.Count("Delivery failed(Timeout)"), 1000u);
  entry.RetireExpired();
  EXPECT_FALSE(entry.HasEnvelopes());
}

}  // namespace
}  // namespace TestSupport
