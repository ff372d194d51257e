#include "broker/Gate.h"

#include "threads/Mutex.h"

namespace Broker {
namespace {

using ThreadHelper::Guard;

class Places {
 public:
  void SetWidth(unsigned operations) {
    const Guard guard(mutex_);
    if (!guard) return;
    width_ = operations == 0 ? 1 : operations;
    freed_.Broadcast();
  }

  // False if the lock can't be taken: the operation then runs uncounted.
  bool Enter() {
    const Guard guard(mutex_);
    if (!guard) return false;
    while (inside_ >= width_) {
      if (!freed_.Wait()) return false;
    }
    ++inside_;
    return true;
  }

  void Exit() {
    const Guard guard(mutex_);
    if (!guard) return;
    --inside_;
    freed_.Signal();
  }

 private:
  // Leaf lock.
  ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition freed_{mutex_};
  unsigned width_ GUARDED_BY(mutex_) = 4;
  unsigned inside_ GUARDED_BY(mutex_) = 0;
};

// Never destroyed: a thread of the ORB may still be on its way out of an operation at the end.
Places& ThePlaces() {
  static auto* const places = new Places;
  return *places;
}

// An operation that calls another one of its own process on the same thread holds one place.
struct Holder {
  unsigned depth = 0;
  bool counted = false;
};
thread_local Holder holder;

}  // namespace

void Gate::SetWidth(unsigned operations) {
  ThePlaces().SetWidth(operations);
}

Gate::Pass::Pass() {
  if (holder.depth++ == 0) holder.counted = ThePlaces().Enter();
}

Gate::Pass::~Pass() {
  if (--holder.depth == 0 && holder.counted) ThePlaces().Exit();
}

// On a thread that holds no place, as one of the router's own, there is nothing to give up.
Gate::Leave::Leave() {
  if (holder.depth > 0 && holder.counted) ThePlaces().Exit();
}

Gate::Leave::~Leave() {
  if (holder.depth > 0 && holder.counted) holder.counted = ThePlaces().Enter();
}

}  // namespace Broker
