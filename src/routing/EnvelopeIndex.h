#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace MessageRouter {

// A hash table of links that live inside its users' objects. It grows and shrinks by one bucket at
// a time, so that no single call pays for all that is in it, and an empty one holds no memory.
// Threads: one at a time.
class EnvelopeIndex {
 public:
  struct Link {
    Link* next = nullptr;   // in the bucket
    Link** slot = nullptr;  // what points to this link; null while it is in no table
    std::uint32_t hash = 0;
  };

  EnvelopeIndex() = default;
  EnvelopeIndex(const EnvelopeIndex&) = delete;
  EnvelopeIndex& operator=(const EnvelopeIndex&) = delete;

  // The link must stay where it is until it is removed.
  void Insert(Link& link, std::uint32_t hash);
  void Remove(Link& link);
  // The first of all links that may have that hash, among others; the rest hang on it.
  Link* First(std::uint32_t hash) const;
  std::size_t Buckets() const { return buckets_; }

 private:
  static constexpr std::size_t kSegmentSize = 64;
  using Segment = std::array<Link*, kSegmentSize>;

  std::size_t BucketOf(std::uint32_t hash) const;
  Link*& Head(std::size_t bucket) const {
    return (*segments_[bucket / kSegmentSize])[bucket % kSegmentSize];
  }
  static void Push(Link*& head, Link& link);
  static void Unlink(Link& link);
  void AddBucket();
  void DropBucket();

  std::vector<std::unique_ptr<Segment>> segments_;
  std::size_t buckets_ = 0;
  std::size_t count_ = 0;
};

}  // namespace MessageRouter
