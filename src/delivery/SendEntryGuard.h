#pragma once

#include "delivery/Workers.h"

namespace MessageRouter {

// Ends a sender's visit to an entry on every way out. A visit counts as failed until Succeeded.
class SendEntryGuard {
 public:
  SendEntryGuard(RouterTableEntry& entry, WorkerManagerBase& manager);
  // After a failure the peer is logged off; otherwise a claim is given back, which puts an entry
  // with more to send at the back of the pool's queue. A session that is over meanwhile is left
  // alone.
  ~SendEntryGuard();
  SendEntryGuard(const SendEntryGuard&) = delete;
  SendEntryGuard& operator=(const SendEntryGuard&) = delete;

  void Claim();
  bool Acquired() const { return claim_.acquired; }
  LogonGeneration Session() const { return claim_.generation; }
  // Whether the session in which the claim was made still stands.
  bool SameSession() const { return entry_.Generation() == claim_.generation; }
  void Succeeded() { failed_ = false; }

 private:
  void Fail();

  RouterTableEntry& entry_;
  WorkerManagerBase& manager_;
  RouterTableEntry::Claim claim_;
  bool failed_ = true;
};

}  // namespace MessageRouter
