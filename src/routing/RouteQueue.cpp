#include "routing/RouteQueue.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace MessageRouter {

RouteQueue::RouteQueue() : condition_(mutex_) {}

void RouteQueue::Append(Envelope&& envelope) {
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard) return;
    queue_.push_back(std::move(envelope));
  }
  // Without the mutex, which the woken thread would have to wait for.
  condition_.Broadcast();
}

void RouteQueue::PutBack(Envelope&& envelope) {
  ThreadHelper::Guard guard(mutex_);
  if (guard) putBack_ = std::move(envelope);
}

bool RouteQueue::Take(unsigned seconds, unsigned milliseconds, Envelope& out) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return false;
  if (putBack_) {
    out = std::move(*putBack_);
    putBack_.reset();
    return true;
  }
  if (queue_.empty()) {
    condition_.WaitFor(std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds));
    if (queue_.empty()) return false;
  }
  out = std::move(queue_.front());
  queue_.pop_front();
  return true;
}

bool RouteQueue::TakeMatching(const std::string& originator, std::uint32_t messageId,
                              Envelope& out) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return false;
  const auto matches = [&](const Envelope& envelope) {
    return envelope.MessageId() == messageId && envelope.Originator() == originator;
  };
  if (putBack_ && matches(*putBack_)) {
    out = std::move(*putBack_);
    putBack_.reset();
    return true;
  }
  const auto found = std::find_if(queue_.begin(), queue_.end(), matches);
  if (found == queue_.end()) return false;
  out = std::move(*found);
  queue_.erase(found);
  return true;
}

void RouteQueue::Empty() {
  // A new one, so that the memory of a long queue goes too, and outside of the lock.
  std::deque<Envelope> dropped;
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  dropped.swap(queue_);
  putBack_.reset();
}

std::size_t RouteQueue::Size() const {
  ThreadHelper::Guard guard(mutex_);
  return guard ? queue_.size() + (putBack_ ? 1 : 0) : 0;
}

}  // namespace MessageRouter
