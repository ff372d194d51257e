#pragma once

#include <functional>

#include "routing/RouterTableEntry.h"

namespace MessageRouter {

// Told how each poll went that did not fail: whether the peer had asked for it, and whether it got
// anything. Runs on getter workers.
using PollObserver = std::function<void(bool notified, bool got)>;

// Ends a getter's visit to an entry on every way out. A visit counts as failed until Succeeded.
class GetEntryGuard {
 public:
  // `observer` may be empty and outlives this.
  GetEntryGuard(RouterTableEntry& entry, const PollObserver& observer);
  // After a failure the peer is logged off; otherwise a claim is given back, and the polling
  // interval starts anew. A session that is over meanwhile is left alone.
  ~GetEntryGuard();
  GetEntryGuard(const GetEntryGuard&) = delete;
  GetEntryGuard& operator=(const GetEntryGuard&) = delete;

  void Claim();
  bool Acquired() const { return claim_.acquired; }
  // Whether the session in which the claim was made still stands.
  bool SameSession() const { return entry_.Generation() == claim_.generation; }
  void GotSomething() { got_ = true; }
  void Succeeded() { failed_ = false; }

 private:
  void Finish();
  void Fail();

  RouterTableEntry& entry_;
  RouterTableEntry::Claim claim_;
  bool failed_ = true;
  bool got_ = false;
  const PollObserver& observer_;
};

}  // namespace MessageRouter
