#pragma once

#include <deque>
#include <unordered_set>

#include "routing/RouterTableEntry.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// Entries in need of attention, first in, first out. They are not owned. An entry may stand in it
// more than once: the state test of each visit makes the second one harmless. What is put in again
// and again, whether or not anybody takes it out, is put in with PutOnce.
// What is put in is in, whatever memory there is: nobody would offer it a second time. While there
// is none an entry has its own place, and stands there once.
// Threads: any.
class EntryQueue {
 public:
  // The only one of that pool: an entry has one place for each.
  explicit EntryQueue(RouterTableEntry::Pool pool);

  void Put(RouterTableEntry* entry) noexcept;
  // Does nothing if the entry stands in the queue by an earlier call of this.
  void PutOnce(RouterTableEntry* entry) noexcept;
  // Waits once for an entry. Null is normal: the caller looks at its stop flag and comes again.
  RouterTableEntry* Get();
  // While stopping, Get returns null at once and Put takes nothing.
  void SetStopping(bool stopping);
  void Clear();
  std::size_t Size() const;

 private:
  void Append(RouterTableEntry* entry) REQUIRES(mutex_);
  void AppendToOwnPlaces(RouterTableEntry* entry) REQUIRES(mutex_);
  RouterTableEntry* TakeFromOwnPlaces() REQUIRES(mutex_);
  bool EmptyLocked() const REQUIRES_SHARED(mutex_) {
    return queue_.empty() && firstInOwnPlace_ == nullptr;
  }

  const RouterTableEntry::Pool pool_;
  mutable ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::deque<RouterTableEntry*> queue_ GUARDED_BY(mutex_);
  std::unordered_set<RouterTableEntry*> once_ GUARDED_BY(mutex_);  // of those in the queue
  // Those in their own places came after all in the queue.
  RouterTableEntry* firstInOwnPlace_ GUARDED_BY(mutex_) = nullptr;
  RouterTableEntry* lastInOwnPlace_ GUARDED_BY(mutex_) = nullptr;
  std::size_t inOwnPlaces_ GUARDED_BY(mutex_) = 0;
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
