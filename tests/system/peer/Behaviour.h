#pragma once

#include <atomic>
#include <deque>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "Json.h"
#include "threads/Mutex.h"

namespace Peer {

// What the peer's own objects do when a router calls them, and what they saw.
// Threads: any.
class Behaviour {
 public:
  // "EnvelopeConsumer.SendEnvelope" raises an exception for the next `times` calls (-1: for ever),
  // each after a delay. A delay of -1 hangs until Release.
  struct Rule {
    std::string raise;
    int times = 0;
    int delayMilliseconds = 0;
  };
  void Set(const std::string& method, const Rule& rule);
  // Ends every hang, now and to come.
  void Release();

  // Called first by every servant operation: counts, delays, raises.
  void OnCall(const std::string& method);
  Json Calls() const;

  // Received envelopes, one line each, "ID originator first-word-of-the-text TIME", flushed before
  // the caller is answered. TIME is in milliseconds of the host's steady clock.
  void RecordInto(const std::string& path);
  void Received(const BrelixMessaging::Envelope& envelope);
  std::uint64_t ReceivedCount() const;
  // The last envelopes, oldest first, at most kKept.
  Json Last() const;
  // False if the time runs out first.
  bool WaitForReceived(std::uint64_t count, std::chrono::milliseconds time);

  // What a router that polls us is given.
  void Supply(const BrelixMessaging::Envelope& envelope);
  // A copy, which the caller owns. Throws NoEnvelope.
  BrelixMessaging::Envelope* NextToSupply() const;
  void Acknowledge(const std::string& originator, BrelixMessaging::MessageId id);
  std::size_t ToSupply() const;
  // From which priority on we want to be notified.
  void SetThreshold(CORBA::Long threshold) { threshold_ = threshold; }
  CORBA::Long Threshold() const { return threshold_; }

  static constexpr std::size_t kKept = 100;

 private:
  mutable ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition changed_{mutex_};
  std::map<std::string, Rule> rules_ GUARDED_BY(mutex_);
  std::map<std::string, std::uint64_t> calls_ GUARDED_BY(mutex_);
  bool released_ GUARDED_BY(mutex_) = false;
  std::ofstream record_ GUARDED_BY(mutex_);
  std::uint64_t received_ GUARDED_BY(mutex_) = 0;
  std::vector<Json> last_ GUARDED_BY(mutex_);
  std::deque<BrelixMessaging::Envelope> toSupply_ GUARDED_BY(mutex_);
  std::atomic<CORBA::Long> threshold_{0};
};

}  // namespace Peer
