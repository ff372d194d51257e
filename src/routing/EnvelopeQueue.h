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
// expiry times, and of those that were put back while there was no memory to list them. Beside the
// envelope itself each one costs about 90 bytes, and 60 more for each second in which one of them
// expires. Threads: the owner's lock guards it. No file is touched here.
class EnvelopeQueue {
  struct Item;
  using List = std::list<Item>;

 public:
  // An envelope outside of the queue, with the memory that it takes within: putting it back needs
  // no more.
  class Taken {
   public:
    Taken() = default;
    explicit Taken(Envelope&& envelope);
    Taken(Taken&&) = default;
    Taken& operator=(Taken&&) = default;
    bool Empty() const { return item_.empty(); }
    Envelope& Get();  // not of an empty one

   private:
    friend class EnvelopeQueue;
    List item_;  // one at most
  };

  EnvelopeQueue() = default;
  EnvelopeQueue(const EnvelopeQueue&) = delete;
  EnvelopeQueue& operator=(const EnvelopeQueue&) = delete;

  bool Empty() const { return count_ == 0; }
  std::size_t Size() const { return count_; }

  // Throws std::bad_alloc; queue and envelope are as before then.
  void Enqueue(Envelope&& envelope);
  // At the exit, whatever its priority. `taken` is empty afterwards.
  void Requeue(Taken& taken) noexcept;
  bool PopNext(Envelope& out);
  bool PopNext(Taken& out);
  const Envelope* Next() const;
  // The first from the exit with a certification type, or null.
  const Envelope* NextCertification() const;
  // Takes out the first from the exit with that id and exactly that originator.
  bool Take(const std::string& originator, std::uint32_t messageId, Envelope& out);
  // The same for the next one alone.
  bool TakeIfNext(const std::string& originator, std::uint32_t messageId, Envelope& out);
  // Takes out what has expired, at most that many, or as many as there is memory for; the rest is
  // for another call.
  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
  void TakeExpired(std::vector<Envelope>& out, std::size_t limit = kNoLimit);
  // In the order of leaving, behind what `out` has. Throws std::bad_alloc: before anything is taken
  // if `out` is empty, else what is left stays.
  void TakeAll(std::vector<Envelope>& out);

 private:
  struct Item : EnvelopeIndex::Link {
    explicit Item(Envelope&& held) noexcept : envelope(std::move(held)) {}

    Envelope envelope;
    List::iterator self;
    Item* nextToExpire = nullptr;  // of those with the same time to live
    Item** expirySlot = nullptr;   // what points to this one; null if it never expires
    std::uint64_t arrival : 61 = 0;
    bool putBack : 1 = false;
    bool certification : 1 = false;
    bool listed : 1 = false;  // in the index and the like; what was put back may not be
  };
  struct NearerToExit {
    bool operator()(const Item* left, const Item* right) const;
  };
  static bool Matches(const Envelope& envelope, const std::string& originator,
                      std::uint32_t messageId);
  // Enters the item into everything but the lists themselves; throws and changes nothing if there
  // is no memory.
  void ListItem(Item& item);
  void UnlistItem(Item& item);
  Item* NextItem();
  Item* Find(const std::string& originator, std::uint32_t messageId);
  void LinkExpiry(Item& item);
  void UnlinkExpiry(Item& item);
  List Extract(Item& item);
  // Moves the envelope to `out` and frees the item.
  void Remove(Item& item, Envelope& out);
  // False, and nothing is taken, if there is no memory for it.
  bool RemoveTo(Item& item, std::vector<Envelope>& out);

  List putBack_;  // the front leaves next; hardly ever more than one
  std::size_t unlisted_ = 0;
  std::map<std::uint32_t, List, std::greater<>> waiting_;  // none of the lists is empty
  EnvelopeIndex index_;                                    // by originator and id
  std::set<const Item*, NearerToExit> certification_;
  std::map<std::int64_t, Item*> expiry_;  // by time to live; none of the chains is empty
  std::size_t count_ = 0;
  std::uint64_t arrivals_ = 0;
};

}  // namespace MessageRouter
