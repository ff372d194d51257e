#pragma once

#include <deque>
#include <unordered_set>

#include "routing/RouterTableEntry.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// Entries in need of attention, first in, first out. They are not owned. An entry may stand in it
// more than once: the state test of each visit makes the second one harmless. What is put in again
// and again, whether or not anybody takes it out, is put in with PutOnce.
// Threads: any.
class EntryQueue {
 public:
  EntryQueue();

  void Put(RouterTableEntry* entry);
  // Does nothing if the entry stands in the queue by an earlier call of this.
  void PutOnce(RouterTableEntry* entry);
  // Waits once for an entry. Null is normal: the caller looks at its stop flag and comes again.
  RouterTableEntry* Get();
  // While stopping, Get returns null at once and Put takes nothing.
  void SetStopping(bool stopping);
  void Clear();
  std::size_t Size() const;

 private:
  mutable ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::deque<RouterTableEntry*> queue_ GUARDED_BY(mutex_);
  std::unordered_set<RouterTableEntry*> once_ GUARDED_BY(mutex_);  // of those in the queue
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
