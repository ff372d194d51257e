#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "Links.h"

namespace Peer {

// Sends many messages, or as a router many envelopes, and keeps a ledger of those that the router
// accepted: "ID tag-000001 TIME" a line, flushed before the next is sent by that thread. TIME is
// when the sending began, in milliseconds of the host's steady clock.
class Bulk {
 public:
  explicit Bulk(Links& links) : links_(links) {}
  ~Bulk();

  // {"destination", "type", "count", "size": bytes of payload, "rate": per second or 0,
  //  "ledger": path, "tag": text, "threads": 1, "as_router": bool, "route": [...],
  //  "reconnect": bool, "deadline": seconds}
  // With "reconnect" a failure makes the job connect and log on again, and go on with the next
  // message, until the deadline.
  void Start(const Json& arguments);
  void Stop() { stopping_ = true; }
  // Waits for the end of the job: {"accepted", "failed", "seconds", "exceptions": {name: count}}.
  // {"running": true} if the time runs out first.
  Json Wait(std::chrono::milliseconds time);

 private:
  struct Job;
  void Run(Job& job, unsigned thread);
  // True if the router took it.
  bool SendOne(Job& job, unsigned index);
  void Pace(const Job& job, unsigned index) const;

  Links& links_;
  std::shared_ptr<Job> job_;
  std::atomic<bool> stopping_{false};
};

}  // namespace Peer
