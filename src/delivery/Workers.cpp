#include "delivery/Workers.h"

#include <stdexcept>
#include <utility>

#include "logging/Log.h"
#include "routing/Quietly.h"

namespace MessageRouter {

void WorkerBase::Process() {
  while (!IsTerminated()) {
    try {
      RouterTableEntry* entry = manager_.Queue().Get();
      if (IsTerminated() || entry == nullptr) continue;
      ProcessEntry(*entry);
    } catch (const std::exception& exception) {
      Quietly([&] { LogError("WorkerBase: Caught %s\n", exception.what()); });
    }
  }
}

WorkerManagerBase::WorkerManagerBase(RouterTableEntry::Pool pool) : queue_(pool) {}

WorkerManagerBase::~WorkerManagerBase() {
  Stop();
}

void WorkerManagerBase::Open() {
  queue_.SetStopping(false);
}

void WorkerManagerBase::Start(WorkerFactoryBase& factory, unsigned count) {
  ThreadHelper::Guard guard(poolMutex_);
  if (!guard) return;
  if (!workers_.empty()) throw std::runtime_error("WorkerManagerBase already started");
  Open();
  for (unsigned made = 0; made < count; ++made) {
    workers_.push_back(factory.Create(*this));
    workers_.back()->Start();
  }
}

void WorkerManagerBase::Add(RouterTableEntry& entry) noexcept {
  queue_.Put(&entry);
}

void WorkerManagerBase::AddOnce(RouterTableEntry& entry) noexcept {
  queue_.PutOnce(&entry);
}

void WorkerManagerBase::Stop() {
  ThreadHelper::Guard guard(poolMutex_);
  if (!guard) return;
  // All are told before the first is waited for, so that they stop together.
  for (const auto& worker : workers_) worker->RequestStop();
  queue_.SetStopping(true);
  while (!workers_.empty()) {
    std::unique_ptr<WorkerBase> worker = std::move(workers_.front());
    workers_.pop_front();
    worker->Stop();
  }
  queue_.Clear();
}

}  // namespace MessageRouter
