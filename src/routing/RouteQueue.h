#pragma once

#include <deque>
#include <optional>

#include "envelope/Envelope.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// The envelopes that wait for a route decision, in order of arrival, whatever their priority.
// Threads: any. A leaf lock, held for queue operations alone.
class RouteQueue {
 public:
  RouteQueue();

  // Leaves the envelope as it is where it throws std::bad_alloc.
  void Append(Envelope&& envelope);
  // The one that was taken last is the next again. Needs no memory.
  void PutBack(Envelope&& envelope);
  // Waits for one at most that long. False if none came.
  bool Take(unsigned seconds, unsigned milliseconds, Envelope& out);
  // Takes out the first from the front with that id and exactly that originator.
  bool TakeMatching(const std::string& originator, std::uint32_t messageId, Envelope& out);
  // Retires nothing: the envelopes stay on disk.
  void Empty();
  std::size_t Size() const;

 private:
  mutable ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::optional<Envelope> putBack_ GUARDED_BY(mutex_);  // before all others
  std::deque<Envelope> queue_ GUARDED_BY(mutex_);
};

}  // namespace MessageRouter
