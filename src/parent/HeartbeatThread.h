#pragma once

#include <atomic>
#include <chrono>

#include "routing/RouterTable.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

// One heartbeat to the parent, on a thread of its own, so that whoever needs the answer can put a
// limit on the wait for it. An object is good for one heartbeat: make, Start, wait, destroy.
// Threads: its owner waits; any may read the result.
class HeartbeatThread : public ThreadHelper::StoppableThreadHelper {
 public:
  explicit HeartbeatThread(RouterTable& table);
  // Waits for the call to come back.
  ~HeartbeatThread() override;
  void Process() override;

  // True once the call has come back or failed, however long ago; false if that has not happened
  // within the time. Nothing else ends the wait. Join waits without limit.
  bool WaitForEnd(std::chrono::microseconds limit);
  // Whether the parent answered. False before the end, and where it can't be pushed to.
  bool Succeeded() const;

 private:
  bool CallParent();

  RouterTable& table_;
  // The result is there before the end is.
  std::atomic<bool> succeeded_{false};
  std::atomic<bool> finished_{false};
};

}  // namespace MessageRouter
