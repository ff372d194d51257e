#pragma once

#include <list>
#include <memory>

#include "delivery/EntryQueue.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

class WorkerManagerBase;

// Takes one entry at a time from the pool's queue and does the blocking remote calls for it.
class WorkerBase : public ThreadHelper::StoppableThreadHelper {
 public:
  explicit WorkerBase(WorkerManagerBase& manager) : manager_(manager) {}
  // A std::exception costs this entry's turn; anything else ends the process.
  virtual void ProcessEntry(RouterTableEntry& entry) = 0;
  void Process() final;

 protected:
  WorkerManagerBase& Manager() { return manager_; }

 private:
  WorkerManagerBase& manager_;
};

class WorkerFactoryBase {
 public:
  virtual ~WorkerFactoryBase() = default;
  // A new worker that has not been started.
  virtual std::unique_ptr<WorkerBase> Create(WorkerManagerBase& manager) = 0;
};

template <class Worker>
class WorkerFactory : public WorkerFactoryBase {
 public:
  std::unique_ptr<WorkerBase> Create(WorkerManagerBase& manager) override {
    return std::make_unique<Worker>(manager);
  }
};

// A pool of workers on one queue of entries. It takes nothing between Stop and the next Open or
// Start.
class WorkerManagerBase {
 public:
  explicit WorkerManagerBase(RouterTableEntry::Pool pool);
  ~WorkerManagerBase();
  WorkerManagerBase(const WorkerManagerBase&) = delete;
  WorkerManagerBase& operator=(const WorkerManagerBase&) = delete;

  // From here on the pool takes entries; they wait for the workers that Start makes.
  void Open();
  // Throws std::runtime_error "WorkerManagerBase already started".
  void Start(WorkerFactoryBase& factory, unsigned count);
  void Add(RouterTableEntry& entry) noexcept;  // any thread
  // As Add, but not if it waits from an earlier call of this already.
  void AddOnce(RouterTableEntry& entry) noexcept;
  // Waits for the workers; a visit that has begun is finished. What is still queued is dropped.
  void Stop();
  EntryQueue& Queue() { return queue_; }

 private:
  EntryQueue queue_;
  ThreadHelper::Mutex poolMutex_;
  std::list<std::unique_ptr<WorkerBase>> workers_ GUARDED_BY(poolMutex_);
};

}  // namespace MessageRouter
