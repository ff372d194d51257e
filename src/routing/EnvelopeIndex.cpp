#include "routing/EnvelopeIndex.h"

#include <bit>

namespace MessageRouter {

void EnvelopeIndex::Insert(Link& link, std::uint32_t hash) {
  if (buckets_ <= count_) AddBucket();
  ++count_;
  link.hash = hash;
  Push(Head(BucketOf(hash)), link);
}

void EnvelopeIndex::Remove(Link& link) {
  Unlink(link);
  --count_;
  while (buckets_ > 2 * count_) DropBucket();
}

EnvelopeIndex::Link* EnvelopeIndex::First(std::uint32_t hash) const {
  return buckets_ == 0 ? nullptr : Head(BucketOf(hash));
}

// With n buckets, of which 2^k is the largest power not above n, a bucket below n - 2^k has been
// split already and the next bit of the hash decides; the others go by k bits.
std::size_t EnvelopeIndex::BucketOf(std::uint32_t hash) const {
  const std::size_t power = std::bit_floor(buckets_);
  const std::size_t bucket = hash & (2 * power - 1);
  return bucket < buckets_ ? bucket : hash & (power - 1);
}

void EnvelopeIndex::Push(Link*& head, Link& link) {
  link.next = head;
  link.slot = &head;
  if (head != nullptr) head->slot = &link.next;
  head = &link;
}

void EnvelopeIndex::Unlink(Link& link) {
  *link.slot = link.next;
  if (link.next != nullptr) link.next->slot = link.slot;
  link.next = nullptr;
  link.slot = nullptr;
}

void EnvelopeIndex::AddBucket() {
  const std::size_t added = buckets_;
  if (added % kSegmentSize == 0) segments_.push_back(std::make_unique<Segment>());
  ++buckets_;
  Head(added) = nullptr;
  if (added == 0) return;
  for (Link* link = Head(added - std::bit_floor(added)); link != nullptr;) {
    Link* const next = link->next;
    if (BucketOf(link->hash) == added) {
      Unlink(*link);
      Push(Head(added), *link);
    }
    link = next;
  }
}

void EnvelopeIndex::DropBucket() {
  const std::size_t dropped = buckets_ - 1;
  if (dropped > 0) {
    Link*& heir = Head(dropped - std::bit_floor(dropped));
    while (Link* link = Head(dropped)) {
      Unlink(*link);
      Push(heir, *link);
    }
  }
  buckets_ = dropped;
  if (dropped % kSegmentSize != 0) return;
  segments_.pop_back();
  // A directory as long as the longest queue ever was would be memory kept for nothing.
  if (dropped == 0 || segments_.capacity() > 4 * segments_.size() + 16) segments_.shrink_to_fit();
}

}  // namespace MessageRouter
