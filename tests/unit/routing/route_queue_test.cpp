#include "routing/RouteQueue.h"

#include <gmock/gmock.h>

#include <thread>

#include "support/AllocationFailure.h"
#include "support/EnvelopeBuilder.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

TEST(RouteQueue, GivesEnvelopesInOrderOfArrivalWhateverTheirPriority) {
  RouteQueue queue;
  queue.Append(AnEnvelope().WithId(1).WithPriority(1));
  queue.Append(AnEnvelope().WithId(2).WithPriority(9));
  Envelope out;
  ASSERT_TRUE(queue.Take(0, 0, out));
  EXPECT_EQ(out.MessageId(), 1u);
  ASSERT_TRUE(queue.Take(0, 0, out));
  EXPECT_EQ(out.MessageId(), 2u);
}

TEST(RouteQueue, WhatIsPutBackIsTheNextOneAgain) {
  RouteQueue queue;
  queue.Append(AnEnvelope().WithId(1));
  queue.Append(AnEnvelope().WithId(2));
  Envelope out;
  ASSERT_TRUE(queue.Take(0, 0, out));
  queue.PutBack(std::move(out));
  EXPECT_EQ(queue.Size(), 2u);
  ASSERT_TRUE(queue.Take(0, 0, out));
  EXPECT_EQ(out.MessageId(), 1u);
  EXPECT_EQ(queue.Size(), 1u);
}

TEST(RouteQueue, WhatIsPutBackNeedsNoMemory) {
  RouteQueue queue;
  Envelope out = AnEnvelope().WithId(1);
  for (std::uint32_t i = 2; i < 100; ++i) queue.Append(AnEnvelope().WithId(i));
  {
    const TestSupport::AllocationFailure failure;
    for (int i = 0; i < 50; ++i) {
      queue.PutBack(std::move(out));
      ASSERT_TRUE(queue.Take(0, 0, out));
    }
    queue.PutBack(std::move(out));
  }
  ASSERT_TRUE(queue.Take(0, 0, out));
  EXPECT_EQ(out.MessageId(), 1u);
}

TEST(RouteQueue, WhatIsPutBackIsFoundAndDroppedLikeTheRest) {
  RouteQueue queue;
  Envelope out;
  queue.PutBack(AnEnvelope().WithId(1).WithOriginator("router.a"));
  EXPECT_FALSE(queue.TakeMatching("router.a", 2, out));
  EXPECT_TRUE(queue.TakeMatching("router.a", 1, out));
  EXPECT_EQ(queue.Size(), 0u);
  queue.PutBack(AnEnvelope());
  queue.Empty();
  EXPECT_EQ(queue.Size(), 0u);
}

TEST(RouteQueue, AnEnvelopeForWhichThereIsNoMemoryIsLeftAsItIs) {
  RouteQueue queue;
  // Until the queue has to grow.
  for (std::uint32_t i = 0;; ++i) {
    ASSERT_LT(i, 1000u);
    Envelope envelope = AnEnvelope().WithId(i);
    try {
      const TestSupport::AllocationFailure failure;
      queue.Append(std::move(envelope));
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(envelope.MessageId(), i);
      EXPECT_EQ(envelope.Destination(), Envelope(AnEnvelope()).Destination());
      EXPECT_EQ(queue.Size(), i);
      return;
    }
  }
}

TEST(RouteQueue, AWaitThatEndsWithoutAnEnvelopeReturnsQuietly) {
  RouteQueue queue;
  Envelope out;
  EXPECT_FALSE(queue.Take(0, 1, out));
}

TEST(RouteQueue, AnEnvelopeThatComesEndsTheWait) {
  RouteQueue queue;
  std::thread producer([&] { queue.Append(AnEnvelope().WithId(5)); });
  Envelope out;
  EXPECT_TRUE(queue.Take(60, 0, out));
  EXPECT_EQ(out.MessageId(), 5u);
  producer.join();
}

TEST(RouteQueue, TakesTheFirstFromTheFrontWithThatIdAndExactlyThatOriginator) {
  RouteQueue queue;
  queue.Append(AnEnvelope().WithId(1).WithOriginator("router.b"));
  queue.Append(AnEnvelope().WithId(1).WithOriginator("router.a").WithOptions("first"));
  queue.Append(AnEnvelope().WithId(1).WithOriginator("router.a").WithOptions("second"));
  Envelope out;
  EXPECT_FALSE(queue.TakeMatching("router.A", 1, out));
  EXPECT_FALSE(queue.TakeMatching("router.a", 2, out));
  ASSERT_TRUE(queue.TakeMatching("router.a", 1, out));
  EXPECT_EQ(out.Options(), "first");
  EXPECT_EQ(queue.Size(), 2u);
}

TEST(RouteQueue, AnEnvelopeIsNotQueuedIfTheLockFailsAndNoErrorIsReported) {
  RouteQueue queue;
  const Envelope envelope = AnEnvelope();
  ThreadHelper::FailNextLocks(1);
  queue.Append(Envelope(envelope));
  EXPECT_EQ(queue.Size(), 0u);
}

TEST(RouteQueue, EmptyDropsAll) {
  RouteQueue queue;
  queue.Append(AnEnvelope());
  queue.Append(AnEnvelope());
  queue.Empty();
  EXPECT_EQ(queue.Size(), 0u);
}

}  // namespace
}  // namespace MessageRouter
