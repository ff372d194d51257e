#include "delivery/EntryQueue.h"

#include <new>
#include <utility>

namespace MessageRouter {

EntryQueue::EntryQueue(RouterTableEntry::Pool pool) : pool_(pool), condition_(mutex_) {}

void EntryQueue::Put(RouterTableEntry* entry) noexcept {
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard || stopping_) return;
    Append(entry);
  }
  // Without the mutex, which the woken worker would have to wait for.
  condition_.Signal();
}

void EntryQueue::PutOnce(RouterTableEntry* entry) noexcept {
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard || stopping_ || once_.contains(entry)) return;
    try {
      once_.insert(entry);
      Append(entry);
    } catch (const std::bad_alloc&) {
      AppendToOwnPlaces(entry);
    }
  }
  condition_.Signal();
}

// In the order of arrival: as long as somebody stands in its own place, so does whoever comes.
void EntryQueue::Append(RouterTableEntry* entry) {
  if (firstInOwnPlace_ == nullptr) {
    try {
      queue_.push_back(entry);
      return;
    } catch (const std::bad_alloc&) {
    }
  }
  AppendToOwnPlaces(entry);
}

void EntryQueue::AppendToOwnPlaces(RouterTableEntry* entry) {
  RouterTableEntry::PlaceInQueue& place = entry->PlaceIn(pool_);
  if (place.taken) return;
  place = {.taken = true, .next = nullptr};
  if (lastInOwnPlace_ == nullptr) {
    firstInOwnPlace_ = entry;
  } else {
    lastInOwnPlace_->PlaceIn(pool_).next = entry;
  }
  lastInOwnPlace_ = entry;
  ++inOwnPlaces_;
}

RouterTableEntry* EntryQueue::TakeFromOwnPlaces() {
  RouterTableEntry* const entry = firstInOwnPlace_;
  firstInOwnPlace_ = std::exchange(entry->PlaceIn(pool_), {}).next;
  if (firstInOwnPlace_ == nullptr) lastInOwnPlace_ = nullptr;
  --inOwnPlaces_;
  return entry;
}

RouterTableEntry* EntryQueue::Get() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return nullptr;
  // The flag stands under this mutex, and not under the worker's own: a worker that found its stop
  // flag clear and was overtaken by the broadcast would otherwise wait here for ever.
  if (EmptyLocked() && !stopping_) condition_.Wait();
  if (EmptyLocked() || stopping_) return nullptr;
  RouterTableEntry* entry = nullptr;
  if (queue_.empty()) {
    entry = TakeFromOwnPlaces();
  } else {
    entry = queue_.front();
    queue_.pop_front();
  }
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
  while (firstInOwnPlace_ != nullptr) TakeFromOwnPlaces();
}

std::size_t EntryQueue::Size() const {
  ThreadHelper::Guard guard(mutex_);
  return guard ? queue_.size() + inOwnPlaces_ : 0;
}

}  // namespace MessageRouter
