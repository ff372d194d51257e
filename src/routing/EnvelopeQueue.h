#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "envelope/Envelope.h"

namespace MessageRouter {

// The envelopes that wait for one peer. The highest priority leaves first, and among equals the
// oldest; what was put back leaves before all.
// Every operation takes the same time whatever waits, up to the number of different priorities.
// Threads: the owner's lock guards it. No file is touched here.
class EnvelopeQueue {
 public:
  EnvelopeQueue() = default;
  EnvelopeQueue(const EnvelopeQueue&) = delete;
  EnvelopeQueue& operator=(const EnvelopeQueue&) = delete;

  bool Empty() const { return count_ == 0; }
  std::size_t Size() const { return count_; }

  void Enqueue(Envelope envelope);
  // At the exit, whatever its priority.
  void Requeue(Envelope envelope);
  bool PopNext(Envelope& out);
  const Envelope* Next() const;
  // The first from the exit with a certification type, or null.
  const Envelope* NextCertification() const;
  // Takes out the first from the exit with that id and exactly that originator.
  bool Take(const std::string& originator, std::uint32_t messageId, Envelope& out);
  // Takes out all that have expired.
  void TakeExpired(std::vector<Envelope>& out);
  void TakeAll(std::vector<Envelope>& out);  // in the order of leaving

 private:
  // to be completed by the implementation
  std::size_t count_ = 0;
};

}  // namespace MessageRouter
