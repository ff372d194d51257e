#include <chrono>
#include <functional>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "fixture.h"
#include "support/AllocationFailure.h"

namespace DeliveryTests {
namespace {

using MessageRouter::EntryQueue;
using MessageRouter::kLogError;
using MessageRouter::WorkerBase;
using MessageRouter::WorkerFactoryBase;
using MessageRouter::WorkerManagerBase;

// A worker whose visits a test decides.
class TestWorker : public WorkerBase {
 public:
  using Visit = std::function<void(TestWorker&, RouterTableEntry&)>;

  TestWorker(WorkerManagerBase& manager, const Visit& visit) : WorkerBase(manager), visit_(visit) {}
  ~TestWorker() override { Stop(); }
  void ProcessEntry(RouterTableEntry& entry) override { visit_(*this, entry); }

 private:
  const Visit& visit_;
};

class PoolTest : public DeliveryTest, public WorkerFactoryBase {
 protected:
  PoolTest() : first(AClient("first")), second(AClient("second")) {
    visit = [this](TestWorker&, RouterTableEntry&) { visited.release(); };
  }
  ~PoolTest() override { pool.Stop(); }

  std::unique_ptr<WorkerBase> Create(WorkerManagerBase& manager) override {
    ++created;
    return std::make_unique<TestWorker>(manager, visit);
  }
  bool Visited() { return visited.try_acquire_for(std::chrono::seconds(30)); }

  RouterTableEntry& first;
  RouterTableEntry& second;
  TestWorker::Visit visit;
  std::counting_semaphore<> visited{0};
  std::atomic<unsigned> created{0};
};

TEST_F(PoolTest, MakesAsManyWorkersAsAsked) {
  pool.Start(*this, 3);
  EXPECT_EQ(created, 3u);
}

TEST_F(PoolTest, WorkerVisitsWhatIsAdded) {
  pool.Start(*this, 1);
  pool.Add(first);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, EntriesLeaveInTheOrderOfArrivalAndMayRepeat) {
  pool.Add(first);
  pool.Add(second);
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Get(), &first);
  EXPECT_EQ(pool.Queue().Get(), &second);
  EXPECT_EQ(pool.Queue().Get(), &first);
}

TEST_F(PoolTest, EntryThatIsAddedOnceWaitsOnceUntilItIsTakenOrTheQueueIsCleared) {
  for (int i = 0; i < 3; ++i) pool.AddOnce(first);
  pool.AddOnce(second);
  EXPECT_EQ(pool.Queue().Size(), 2u);
  EXPECT_EQ(pool.Queue().Get(), &first);
  pool.AddOnce(first);
  EXPECT_EQ(pool.Queue().Size(), 2u);
  pool.Queue().Clear();
  pool.AddOnce(first);
  EXPECT_EQ(pool.Queue().Size(), 1u);
}

TEST_F(PoolTest, WorkerVisitsWhatIsAddedOnce) {
  pool.Start(*this, 1);
  pool.AddOnce(first);
  EXPECT_TRUE(Visited());
}

// While there is no memory an entry stands in the queue once.
TEST_F(PoolTest, WhatIsAddedWithoutMemoryLeavesAfterAllThatCameBeforeIt) {
  std::size_t puts = 0;
  {
    const TestSupport::AllocationFailure failure;
    for (; !TestSupport::AllocationFailure::Happened(); ++puts) pool.Add(first);
    pool.Add(second);
    pool.Add(second);
  }
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Size(), puts + 1);
  for (; puts > 0; --puts) EXPECT_EQ(pool.Queue().Get(), &first);
  EXPECT_EQ(pool.Queue().Get(), &second);
  EXPECT_EQ(pool.Queue().Size(), 0u);
  pool.Add(second);
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Get(), &second);
  EXPECT_EQ(pool.Queue().Get(), &first);
}

TEST_F(PoolTest, WhatIsAddedOnceWithoutMemoryWaitsOnce) {
  for (std::size_t successes = 0; successes < 3; ++successes) {
    {
      const TestSupport::AllocationFailure failure(successes);
      pool.AddOnce(first);
      pool.AddOnce(second);
      pool.AddOnce(first);
    }
    pool.AddOnce(second);
    EXPECT_EQ(pool.Queue().Size(), 2u);
    EXPECT_EQ(pool.Queue().Get(), &first);
    EXPECT_EQ(pool.Queue().Get(), &second);
  }
}

TEST_F(PoolTest, WorkerVisitsWhatIsAddedOnceWithoutMemory) {
  pool.Start(*this, 1);
  {
    const TestSupport::AllocationFailure failure;
    pool.AddOnce(first);
  }
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, WhatWasAddedWithoutMemoryAndClearedCanBeAddedAgain) {
  for (int round = 0; round < 2; ++round) {
    const TestSupport::AllocationFailure failure;
    pool.AddOnce(first);
    EXPECT_EQ(pool.Queue().Size(), 1u);
    pool.Queue().Clear();
    EXPECT_EQ(pool.Queue().Size(), 0u);
  }
}

TEST_F(PoolTest, SecondStartThrowsAndLeavesTheWorkersAlone) {
  pool.Start(*this, 1);
  try {
    pool.Start(*this, 1);
    ADD_FAILURE();
  } catch (const std::runtime_error& exception) {
    EXPECT_STREQ(exception.what(), "WorkerManagerBase already started");
  }
  pool.Add(first);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, FailureInTheMiddleOfAStartLeavesTheWorkersMadeSoFar) {
  class Failing : public WorkerFactoryBase {
   public:
    explicit Failing(WorkerFactoryBase& factory) : factory_(factory) {}
    std::unique_ptr<WorkerBase> Create(WorkerManagerBase& manager) override {
      if (std::exchange(madeOne_, true)) throw std::runtime_error("no more");
      return factory_.Create(manager);
    }

   private:
    WorkerFactoryBase& factory_;
    bool madeOne_ = false;
  } failing(*this);
  EXPECT_THROW(pool.Start(failing, 2), std::runtime_error);
  pool.Add(first);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, StartWithACountOfZeroLetsEntriesCollectUntilStopAndALaterStartIsLegal) {
  pool.Start(*this, 0);
  for (int i = 0; i < 1000; ++i) pool.Add(first);
  EXPECT_EQ(pool.Queue().Size(), 1000u);
  pool.Stop();
  EXPECT_EQ(pool.Queue().Size(), 0u);
  pool.Start(*this, 1);
  pool.Add(first);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, StartAfterACountOfZeroIsLegalWithoutAStop) {
  pool.Start(*this, 0);
  pool.Add(first);
  pool.Start(*this, 1);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, StopOfAnEmptyPoolIsHarmlessAndClearsTheQueue) {
  pool.Add(first);
  pool.Stop();
  EXPECT_EQ(pool.Queue().Size(), 0u);
  pool.Stop();
}

TEST_F(PoolTest, TakesEntriesBeforeItsFirstStart) {
  pool.Add(first);
  pool.Start(*this, 1);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, TakesNothingBetweenStopAndTheNextStart) {
  pool.Start(*this, 1);
  pool.Stop();
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Size(), 0u);
  pool.Start(*this, 0);
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Size(), 1u);
}

TEST_F(PoolTest, TakesEntriesFromOpenOnAndKeepsThemForTheWorkers) {
  pool.Start(*this, 1);
  pool.Stop();
  pool.Open();
  pool.Add(first);
  EXPECT_EQ(pool.Queue().Size(), 1u);
  pool.Start(*this, 1);
  EXPECT_TRUE(Visited());
}

TEST_F(PoolTest, GetWokenByAStopWithAnEmptyQueueReturnsNull) {
  EntryQueue queue{RouterTableEntry::kSenderPool};
  RouterTableEntry* got = &first;
  std::thread waiting([&] { got = queue.Get(); });
  queue.SetStopping(true);
  waiting.join();
  EXPECT_EQ(got, nullptr);
}

TEST_F(PoolTest, GetReturnsNullWhileStoppingWhateverWaits) {
  EntryQueue queue{RouterTableEntry::kSenderPool};
  queue.Put(&first);
  queue.SetStopping(true);
  EXPECT_EQ(queue.Get(), nullptr);
}

TEST_F(PoolTest, WorkersThatWaitEndAtAStopWithoutAVisit) {
  pool.Start(*this, 4);
  pool.Stop();
  EXPECT_FALSE(visited.try_acquire());
}

// The race that a flag outside of the queue's mutex loses: a stop between a worker's test of its
// own flag and its wait.
TEST_F(PoolTest, NoStopIsMissed) {
  for (int round = 0; round < 500; ++round) {
    pool.Start(*this, 2);
    if (round % 2 == 0) pool.Add(first);
    pool.Stop();
  }
}

TEST_F(PoolTest, EntryThatAWorkerHasTakenWhenTheStopBeginsIsProcessedToItsEnd) {
  std::binary_semaphore begun(0);
  bool ended = false;
  visit = [&](TestWorker& worker, RouterTableEntry&) {
    begun.release();
    while (!worker.IsTerminated()) std::this_thread::yield();
    ended = true;
  };
  pool.Start(*this, 1);
  pool.Add(first);
  begun.acquire();
  pool.Add(second);
  pool.Stop();
  EXPECT_TRUE(ended);
}

TEST_F(PoolTest, EntryThatStillWaitsWhenTheStopBeginsIsDroppedUnprocessed) {
  std::binary_semaphore begun(0);
  std::vector<RouterTableEntry*> entries;
  visit = [&](TestWorker& worker, RouterTableEntry& entry) {
    entries.push_back(&entry);
    begun.release();
    while (!worker.IsTerminated()) std::this_thread::yield();
  };
  pool.Start(*this, 1);
  pool.Add(first);
  begun.acquire();
  pool.Add(second);
  pool.Stop();
  EXPECT_THAT(entries, testing::ElementsAre(&first));
  EXPECT_EQ(pool.Queue().Size(), 0u);
}

TEST_F(PoolTest, AllWorkersAreToldBeforeTheFirstIsWaitedFor) {
  std::counting_semaphore<> begun(0);
  std::atomic<int> told{0};
  // Each ends only when all have been told.
  visit = [&](TestWorker& worker, RouterTableEntry&) {
    begun.release();
    while (!worker.IsTerminated()) std::this_thread::yield();
    ++told;
    while (told < 2) std::this_thread::yield();
  };
  pool.Start(*this, 2);
  pool.Add(first);
  pool.Add(second);
  begun.acquire();
  begun.acquire();
  pool.Stop();
  EXPECT_EQ(told, 2);
}

TEST_F(PoolTest, ExceptionOfAVisitCostsItsTurnAndKeepsTheWorker) {
  visit = [this](TestWorker&, RouterTableEntry& entry) {
    if (&entry == &first) throw std::runtime_error("that one is bad");
    visited.release();
  };
  pool.Start(*this, 1);
  pool.Add(first);
  pool.Add(second);
  EXPECT_TRUE(Visited());
  EXPECT_TRUE(log.Has(kLogError, "WorkerBase: Caught that one is bad\n"));
}

TEST_F(PoolTest, ForeignExceptionOfAVisitEndsTheProcess) {
  EXPECT_EXIT(
      {
        visit = [](TestWorker&, RouterTableEntry&) { throw CORBA::INTERNAL(); };
        pool.Start(*this, 1);
        pool.Add(first);
        Visited();
        std::exit(9);
      },
      testing::ExitedWithCode(255), "");
}

}  // namespace
}  // namespace DeliveryTests
