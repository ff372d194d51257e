#include "routing/EnvelopeQueue.h"

#include <gmock/gmock.h>

#include <list>
#include <new>
#include <random>

#include "support/AllocationFailure.h"
#include "support/EnvelopeBuilder.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestSupport::AllocationFailure;
using TestSupport::FakeClock;

std::vector<std::uint32_t> Ids(const std::vector<Envelope>& envelopes) {
  std::vector<std::uint32_t> ids;
  for (const Envelope& envelope : envelopes) ids.push_back(envelope.MessageId());
  return ids;
}

// As one that was popped and could not be delivered.
void PutBack(EnvelopeQueue& queue, Envelope envelope) {
  EnvelopeQueue::Taken taken(std::move(envelope));
  queue.Requeue(taken);
}

std::vector<std::uint32_t> Drain(EnvelopeQueue& queue) {
  std::vector<Envelope> taken;
  queue.TakeAll(taken);
  EXPECT_TRUE(queue.Empty());
  return Ids(taken);
}

TEST(EnvelopeQueueOrder, OfTwoEnvelopesOfPriority5TheOlderLeavesFirst6AheadOfBothAnd4AfterBoth) {
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithPriority(5).WithId(1));
  queue.Enqueue(AnEnvelope().WithPriority(5).WithId(2));
  queue.Enqueue(AnEnvelope().WithPriority(6).WithId(3));
  queue.Enqueue(AnEnvelope().WithPriority(4).WithId(4));
  EXPECT_THAT(Drain(queue), ElementsAre(3, 1, 2, 4));
}

TEST(EnvelopeQueueOrder, PrioritiesCompareUnsigned) {
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithPriority(1).WithId(1));
  queue.Enqueue(AnEnvelope().WithPriority(0xFFFFFFFF).WithId(2));
  EXPECT_THAT(Drain(queue), ElementsAre(2, 1));
}

TEST(EnvelopeQueueOrder, WhatIsPutBackLeavesNextWhateverItsPriority) {
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithPriority(9).WithId(1));
  PutBack(queue, AnEnvelope().WithPriority(1).WithId(2));
  PutBack(queue, AnEnvelope().WithPriority(1).WithId(3));
  queue.Enqueue(AnEnvelope().WithPriority(10).WithId(4));
  EXPECT_THAT(Drain(queue), ElementsAre(3, 2, 4, 1));
}

TEST(EnvelopeQueueOrder, NextShowsWhatPopWillGive) {
  EnvelopeQueue queue;
  EXPECT_EQ(queue.Next(), nullptr);
  queue.Enqueue(AnEnvelope().WithId(7));
  ASSERT_NE(queue.Next(), nullptr);
  EXPECT_EQ(queue.Next()->MessageId(), 7u);
  Envelope out;
  EXPECT_TRUE(queue.PopNext(out));
  EXPECT_EQ(out.MessageId(), 7u);
  EXPECT_FALSE(queue.PopNext(out));
}

TEST(EnvelopeQueueTake, NeedsTheIdAndExactlyTheOriginator) {
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithId(1).WithOriginator("router.a"));
  Envelope out;
  EXPECT_FALSE(queue.Take("router.A", 1, out));
  EXPECT_FALSE(queue.Take("router.a", 2, out));
  EXPECT_TRUE(queue.Take("router.a", 1, out));
  EXPECT_EQ(out.Originator(), "router.a");
  EXPECT_TRUE(queue.Empty());
}

TEST(EnvelopeQueueTake, OfTwoCopiesTheOneNearestTheExitGoes) {
  struct Case {
    const char* what;
    bool putBack;
    std::uint32_t firstPriority, secondPriority;
    std::uint32_t taken;
  };
  const Case cases[] = {
      {"the older of equals", false, 5, 5, 5},
      {"the higher priority", false, 5, 7, 7},
      {"what was put back", true, 9, 3, 3},
  };
  for (const Case& c : cases) {
    EnvelopeQueue queue;
    queue.Enqueue(AnEnvelope().WithId(99).WithPriority(100));  // not the next one
    queue.Enqueue(AnEnvelope().WithId(1).WithPriority(c.firstPriority).WithOptions("first"));
    const Envelope second = AnEnvelope().WithId(1).WithPriority(c.secondPriority);
    if (c.putBack) {
      PutBack(queue, second);
      PutBack(queue, AnEnvelope().WithId(98));
    } else {
      queue.Enqueue(Envelope(second));
    }
    Envelope out;
    ASSERT_TRUE(queue.Take(second.Originator(), 1, out)) << c.what;
    EXPECT_EQ(out.Priority(), c.taken) << c.what;
    EXPECT_EQ(out.Options() == "first", c.firstPriority == c.secondPriority) << c.what;
  }
}

TEST(EnvelopeQueueTake, FromTheMiddleKeepsTheOrderOfTheRest) {
  EnvelopeQueue queue;
  for (std::uint32_t id = 1; id <= 5; ++id) queue.Enqueue(AnEnvelope().WithId(id));
  Envelope out;
  ASSERT_TRUE(queue.Take(Envelope(AnEnvelope()).Originator(), 3, out));
  EXPECT_THAT(Drain(queue), ElementsAre(1, 2, 4, 5));
}

TEST(EnvelopeQueueCertification, TheFirstFromTheExitIsFoundAmongOrdinaryOnes) {
  EnvelopeQueue queue;
  EXPECT_EQ(queue.NextCertification(), nullptr);
  queue.Enqueue(AnEnvelope().WithId(1).WithPriority(9));
  EXPECT_EQ(queue.NextCertification(), nullptr);
  queue.Enqueue(AnEnvelope().WithId(2).WithPriority(1).WithType("Certification.A"));
  queue.Enqueue(AnEnvelope().WithId(3).WithPriority(5).WithType("certification.B"));
  queue.Enqueue(AnEnvelope().WithId(4).WithPriority(5).WithType("Certification.C"));
  ASSERT_NE(queue.NextCertification(), nullptr);
  EXPECT_EQ(queue.NextCertification()->MessageId(), 3u);
  PutBack(queue, AnEnvelope().WithId(5).WithPriority(0).WithType("Certification.D"));
  EXPECT_EQ(queue.NextCertification()->MessageId(), 5u);
  Envelope out;
  const std::string originator = Envelope(AnEnvelope()).Originator();
  for (const std::uint32_t id : {5, 3, 4, 2}) {
    EXPECT_EQ(queue.NextCertification()->MessageId(), id);
    ASSERT_TRUE(queue.Take(originator, id, out));
  }
  EXPECT_EQ(queue.NextCertification(), nullptr);
  EXPECT_EQ(queue.Size(), 1u);
}

TEST(EnvelopeQueueExpiry, TakesWhatHasExpiredAndKeepsTheRest) {
  FakeClock clock;
  const std::int64_t now = clock.WallSeconds();
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithId(1).WithTtl(now - 1));
  queue.Enqueue(AnEnvelope().WithId(2).WithTtl(0));
  queue.Enqueue(AnEnvelope().WithId(3).WithTtl(now));
  queue.Enqueue(AnEnvelope().WithId(4).WithTtl(now + 10).WithPriority(7));
  PutBack(queue, AnEnvelope().WithId(5).WithTtl(-1));
  std::vector<Envelope> expired;
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), UnorderedElementsAre(5, 1));
  expired.clear();
  queue.TakeExpired(expired);
  EXPECT_THAT(expired, IsEmpty());
  clock.AdvanceWall(1);
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), ElementsAre(3));
  clock.AdvanceWall(10);
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), ElementsAre(3, 4));
  EXPECT_THAT(Drain(queue), ElementsAre(2));
}

TEST(EnvelopeQueueExpiry, AnEnvelopeThatComesLaterCountsToo) {
  FakeClock clock;
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithId(1).WithTtl(clock.WallSeconds() + 1000));
  std::vector<Envelope> expired;
  queue.TakeExpired(expired);
  queue.Enqueue(AnEnvelope().WithId(2).WithTtl(clock.WallSeconds() + 5));
  clock.AdvanceWall(6);
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), ElementsAre(2));
}

TEST(EnvelopeQueueExpiry, OfManyOfTheSameSecondNoneIsForgottenWhateverLeftBefore) {
  FakeClock clock;
  EnvelopeQueue queue;
  const std::int64_t ttl = clock.WallSeconds() + 5;
  for (std::uint32_t id = 1; id <= 6; ++id) queue.Enqueue(AnEnvelope().WithId(id).WithTtl(ttl));
  const std::string originator = Envelope(AnEnvelope()).Originator();
  Envelope out;
  for (const std::uint32_t id : {6, 1, 3}) ASSERT_TRUE(queue.Take(originator, id, out));
  clock.AdvanceWall(6);
  std::vector<Envelope> expired;
  queue.TakeExpired(expired, 2);
  EXPECT_EQ(expired.size(), 2u);
  queue.TakeExpired(expired, 2);
  EXPECT_THAT(Ids(expired), UnorderedElementsAre(2, 4, 5));
  EXPECT_TRUE(queue.Empty());
}

// Whichever allocation is the first that fails.
TEST(EnvelopeQueueMemory, EnqueueThatFindsNoneLeavesQueueAndEnvelopeAsTheyWere) {
  for (const std::uint32_t waiting : {0u, 64u}) {
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes) {
      EnvelopeQueue queue;
      for (std::uint32_t id = 0; id < waiting; ++id) queue.Enqueue(AnEnvelope().WithId(id));
      Envelope envelope =
          AnEnvelope().WithId(100).WithPriority(9).WithTtl(1).WithType("Certification.A");
      failed = false;
      try {
        const AllocationFailure failure(successes);
        queue.Enqueue(std::move(envelope));
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      if (failed) {
        ASSERT_EQ(queue.Size(), waiting);
        EXPECT_EQ(queue.NextCertification(), nullptr);
        EXPECT_EQ(queue.Next() == nullptr, waiting == 0);
        EXPECT_EQ(envelope.Type(), "Certification.A");
        queue.Enqueue(std::move(envelope));
      } else {
        EXPECT_GE(successes, 4u);
      }
      Envelope out;
      ASSERT_TRUE(queue.Take("Router.sender", 100, out));
      EXPECT_EQ(Drain(queue).size(), waiting);
    }
  }
}

// One that was popped and put back while there was no memory.
class PutBackWithoutMemory : public testing::Test {
 protected:
  PutBackWithoutMemory() {
    queue.Enqueue(AnEnvelope().WithId(1).WithTtl(clock.WallSeconds()).WithType("Certification.A"));
    EnvelopeQueue::Taken taken;
    EXPECT_TRUE(queue.PopNext(taken));
    EXPECT_TRUE(queue.Empty());
    {
      const AllocationFailure failure;
      queue.Requeue(taken);
      EXPECT_TRUE(AllocationFailure::Happened());
    }
    EXPECT_TRUE(taken.Empty());
    PutBack(queue, AnEnvelope().WithId(2));
    queue.Enqueue(AnEnvelope().WithId(3).WithPriority(100).WithType("Certification.B"));
  }
  FakeClock clock;
  EnvelopeQueue queue;
  Envelope out;
};

TEST_F(PutBackWithoutMemory, LeavesInItsOrder) {
  EXPECT_EQ(queue.Size(), 3u);
  EXPECT_THAT(Drain(queue), ElementsAre(2, 1, 3));
}

TEST_F(PutBackWithoutMemory, IsFoundByItsOriginatorAndId) {
  EXPECT_TRUE(queue.Take("Router.sender", 1, out));
  EXPECT_FALSE(queue.Take("Router.sender", 1, out));
  EXPECT_THAT(Drain(queue), ElementsAre(2, 3));
}

TEST_F(PutBackWithoutMemory, IsTheFirstCertificationMessage) {
  ASSERT_NE(queue.NextCertification(), nullptr);
  EXPECT_EQ(queue.NextCertification()->MessageId(), 1u);
  EXPECT_TRUE(queue.Take("Router.sender", 1, out));
  EXPECT_EQ(queue.NextCertification()->MessageId(), 3u);
}

TEST_F(PutBackWithoutMemory, Expires) {
  std::vector<Envelope> expired;
  queue.TakeExpired(expired);
  EXPECT_THAT(expired, IsEmpty());
  clock.AdvanceWall(1);
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), ElementsAre(1));
  EXPECT_THAT(Drain(queue), ElementsAre(2, 3));
}

TEST_F(PutBackWithoutMemory, CanBePutBackAgain) {
  EnvelopeQueue::Taken taken;
  ASSERT_TRUE(queue.PopNext(out));
  ASSERT_TRUE(queue.PopNext(taken));
  EXPECT_EQ(taken.Get().MessageId(), 1u);
  queue.Requeue(taken);
  EXPECT_THAT(Drain(queue), ElementsAre(1, 3));
}

TEST(EnvelopeQueueMemory, WhatHasExpiredStaysUntilThereIsMemoryToTakeIt) {
  FakeClock clock;
  EnvelopeQueue queue;
  queue.Enqueue(AnEnvelope().WithId(1).WithTtl(clock.WallSeconds() - 1));
  std::vector<Envelope> expired;
  {
    const AllocationFailure failure;
    EXPECT_NO_THROW(queue.TakeExpired(expired));
  }
  EXPECT_THAT(expired, IsEmpty());
  queue.TakeExpired(expired);
  EXPECT_THAT(Ids(expired), ElementsAre(1));
}

// The queue as a plain list, ascending from the entrance to the exit.
class PlainQueue {
 public:
  void Enqueue(const Envelope& envelope) {
    auto place = list_.begin();
    while (place != list_.end() && place->Priority() < envelope.Priority()) ++place;
    list_.insert(place, envelope);
  }
  void Requeue(const Envelope& envelope) { list_.push_back(envelope); }
  bool PopNext(Envelope& out) {
    if (list_.empty()) return false;
    out = list_.back();
    list_.pop_back();
    return true;
  }
  bool Take(const std::string& originator, std::uint32_t id, Envelope& out) {
    for (auto place = list_.rbegin(); place != list_.rend(); ++place) {
      if (place->MessageId() != id || place->Originator() != originator) continue;
      out = *place;
      list_.erase(std::next(place).base());
      return true;
    }
    return false;
  }

 private:
  std::list<Envelope> list_;
};

// What is put back is popped again before anything else comes: in a plain list a newcomer of a
// higher priority would pass it.
TEST(EnvelopeQueueModel, BehavesAsAListSortedByPriority) {
  std::mt19937 random(7);
  EnvelopeQueue queue;
  PlainQueue plain;
  for (int step = 0; step < 30000; ++step) {
    const std::uint32_t id = random() % 200;
    const std::string originator = random() % 2 == 0 ? "router.a" : "router.b";
    const Envelope envelope = AnEnvelope()
                                  .WithId(id)
                                  .WithOriginator(originator)
                                  .WithPriority(random() % 4)
                                  .WithOptions(std::to_string(step));
    Envelope expected;
    Envelope given;
    const unsigned action = random() % 8;
    if (action < 4) {
      plain.Enqueue(envelope);
      queue.Enqueue(Envelope(envelope));
      continue;
    }
    bool there = false;
    if (action == 4) {
      there = plain.Take(originator, id, expected);
      ASSERT_EQ(queue.Take(originator, id, given), there);
    } else {
      there = plain.PopNext(expected);
      ASSERT_EQ(queue.PopNext(given), there);
    }
    if (!there) continue;
    ASSERT_EQ(given.Options(), expected.Options());
    if (action != 7) continue;
    plain.Requeue(expected);
    PutBack(queue, given);
    ASSERT_TRUE(plain.PopNext(expected));
    ASSERT_TRUE(queue.PopNext(given));
    ASSERT_EQ(given.Options(), expected.Options());
  }
}

}  // namespace
}  // namespace MessageRouter
