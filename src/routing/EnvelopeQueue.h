#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "envelope/Envelope.h"
#include "routing/EnvelopeIndex.h"

namespace MessageRouter {

// The envelopes that wait for one peer. The highest priority leaves first, and among equals the
// oldest; what was put back leaves before all.
// Every operation takes the same time whatever waits, up to the number of different priorities and
// expiry times. Beside the envelope itself each one costs about 90 bytes, and 60 more for each
// second in which one of them expires.
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
  // The same for the next one alone.
  bool TakeIfNext(const std::string& originator, std::uint32_t messageId, Envelope& out);
  // Takes out what has expired, at most that many; the rest is for the next call.
  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
  void TakeExpired(std::vector<Envelope>& out, std::size_t limit = kNoLimit);
  void TakeAll(std::vector<Envelope>& out);  // in the order of leaving

 private:
  struct Item;
  using List = std::list<Item>;
  struct Item : EnvelopeIndex::Link {
    explicit Item(Envelope held) : envelope(std::move(held)) {}

    Envelope envelope;
    List::iterator self;
    Item* nextToExpire = nullptr;  // of those with the same time to live
    Item** expirySlot = nullptr;   // what points to this one; null if it never expires
    std::uint64_t arrival : 62 = 0;
    bool putBack : 1 = false;
    bool certification : 1 = false;
  };
  struct NearerToExit {
    bool operator()(const Item* left, const Item* right) const;
  };
  static bool Matches(const Envelope& envelope, const std::string& originator,
                      std::uint32_t messageId);
  void Add(List& list, List::iterator place, Envelope envelope, bool putBack);
  Item* NextItem();
  Item* Find(const std::string& originator, std::uint32_t messageId);
  void LinkExpiry(Item& item);
  void UnlinkExpiry(Item& item);
  // Moves the envelope to `out` and frees the item.
  void Remove(Item& item, Envelope& out);

  List putBack_;                                           // the front leaves next
  std::map<std::uint32_t, List, std::greater<>> waiting_;  // none of the lists is empty
  EnvelopeIndex index_;                                    // by originator and id
  std::set<const Item*, NearerToExit> certification_;
  std::map<std::int64_t, Item*> expiry_;  // by time to live; none of the chains is empty
  std::size_t count_ = 0;
  std::uint64_t arrivals_ = 0;
};

}  // namespace MessageRouter
