#include "delivery/EntryQueue.h"

namespace MessageRouter {

EntryQueue::EntryQueue() : condition_(mutex_) {}

void EntryQueue::Put(RouterTableEntry* entry) {
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard || stopping_) return;
    queue_.push_back(entry);
  }
  // Without the mutex, which the woken worker would have to wait for.
  condition_.Signal();
}

void EntryQueue::PutOnce(RouterTableEntry* entry) {
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard || stopping_ || once_.contains(entry)) return;
    // In this order: what is noted and does not stand in the queue would never come in again.
    queue_.push_back(entry);
    once_.insert(entry);
  }
  condition_.Signal();
}

RouterTableEntry* EntryQueue::Get() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return nullptr;
  // The flag stands under this mutex, and not under the worker's own: a worker that found its stop
  // flag clear and was overtaken by the broadcast would otherwise wait here for ever.
  if (queue_.empty() && !stopping_) condition_.Wait();
  if (queue_.empty() || stopping_) return nullptr;
  RouterTableEntry* entry = queue_.front();
  queue_.pop_front();
  // It may stand there once more by Put; a visit too many does no harm.
  if (!once_.empty()) once_.erase(entry);
  return entry;
}

void EntryQueue::SetStopping(bool stopping) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  stopping_ = stopping;
  condition_.Broadcast();
}

void EntryQueue::Clear() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  queue_.clear();
  once_.clear();
}

std::size_t EntryQueue::Size() const {
  ThreadHelper::Guard guard(mutex_);
  return guard ? queue_.size() : 0;
}

}  // namespace MessageRouter
