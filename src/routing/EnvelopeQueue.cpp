#include "routing/EnvelopeQueue.h"

#include <string_view>
#include <utility>

#include "envelope/MessageType.h"
#include "platform/Clock.h"

namespace MessageRouter {

namespace {

// Ids of one second differ in their high bits alone, so all bits are mixed.
std::uint32_t HashOf(std::string_view originator, std::uint32_t messageId) {
  std::uint64_t hash = std::hash<std::string_view>{}(originator) + messageId;
  hash ^= hash >> 33;
  hash *= 0xff51afd7ed558ccdULL;
  hash ^= hash >> 33;
  return static_cast<std::uint32_t>(hash);
}

}  // namespace

bool EnvelopeQueue::NearerToExit::operator()(const Item* left, const Item* right) const {
  if (left->putBack != right->putBack) return left->putBack;
  if (left->putBack) return left->arrival > right->arrival;
  const std::uint32_t leftPriority = left->envelope.Priority();
  const std::uint32_t rightPriority = right->envelope.Priority();
  if (leftPriority != rightPriority) return leftPriority > rightPriority;
  return left->arrival < right->arrival;
}

bool EnvelopeQueue::Matches(const Envelope& envelope, const std::string& originator,
                            std::uint32_t messageId) {
  return envelope.MessageId() == messageId && envelope.Originator() == originator;
}

void EnvelopeQueue::Enqueue(Envelope envelope) {
  List& list = waiting_[envelope.Priority()];
  Add(list, list.end(), std::move(envelope), false);
}

void EnvelopeQueue::Requeue(Envelope envelope) {
  Add(putBack_, putBack_.begin(), std::move(envelope), true);
}

void EnvelopeQueue::Add(List& list, List::iterator place, Envelope envelope, bool putBack) {
  const List::iterator added = list.emplace(place, std::move(envelope));
  Item& item = *added;
  item.self = added;
  item.arrival = arrivals_++;
  item.putBack = putBack;
  item.certification = IsCertificationType(item.envelope.Type());
  index_.Insert(item, HashOf(item.envelope.Originator(), item.envelope.MessageId()));
  if (item.certification) certification_.insert(&item);
  LinkExpiry(item);
  ++count_;
}

void EnvelopeQueue::LinkExpiry(Item& item) {
  const std::int64_t ttl = item.envelope.Ttl();
  if (ttl == 0) return;
  Item*& head = expiry_[ttl];
  item.nextToExpire = head;
  item.expirySlot = &head;
  if (head != nullptr) head->expirySlot = &item.nextToExpire;
  head = &item;
}

void EnvelopeQueue::UnlinkExpiry(Item& item) {
  if (item.expirySlot == nullptr) return;
  *item.expirySlot = item.nextToExpire;
  if (item.nextToExpire != nullptr) {
    item.nextToExpire->expirySlot = item.expirySlot;
    return;
  }
  const auto row = expiry_.find(item.envelope.Ttl());
  if (row->second == nullptr) expiry_.erase(row);
}

EnvelopeQueue::Item* EnvelopeQueue::NextItem() {
  if (!putBack_.empty()) return &putBack_.front();
  if (!waiting_.empty()) return &waiting_.begin()->second.front();
  return nullptr;
}

const Envelope* EnvelopeQueue::Next() const {
  const Item* item = const_cast<EnvelopeQueue*>(this)->NextItem();
  return item == nullptr ? nullptr : &item->envelope;
}

const Envelope* EnvelopeQueue::NextCertification() const {
  return certification_.empty() ? nullptr : &(*certification_.begin())->envelope;
}

bool EnvelopeQueue::PopNext(Envelope& out) {
  Item* item = NextItem();
  if (item == nullptr) return false;
  Remove(*item, out);
  return true;
}

EnvelopeQueue::Item* EnvelopeQueue::Find(const std::string& originator, std::uint32_t messageId) {
  // What a peer acknowledges is nearly always the next one; this also keeps a queue full of copies
  // of one message as fast as any other.
  Item* const next = NextItem();
  if (next == nullptr || Matches(next->envelope, originator, messageId)) return next;
  const std::uint32_t hash = HashOf(originator, messageId);
  Item* found = nullptr;
  for (EnvelopeIndex::Link* link = index_.First(hash); link != nullptr; link = link->next) {
    if (link->hash != hash) continue;
    Item* const item = static_cast<Item*>(link);
    if (!Matches(item->envelope, originator, messageId)) continue;
    if (found == nullptr || NearerToExit()(item, found)) found = item;
  }
  return found;
}

bool EnvelopeQueue::Take(const std::string& originator, std::uint32_t messageId, Envelope& out) {
  Item* item = Find(originator, messageId);
  if (item == nullptr) return false;
  Remove(*item, out);
  return true;
}

bool EnvelopeQueue::TakeIfNext(const std::string& originator, std::uint32_t messageId,
                               Envelope& out) {
  Item* const next = NextItem();
  if (next == nullptr || !Matches(next->envelope, originator, messageId)) return false;
  Remove(*next, out);
  return true;
}

void EnvelopeQueue::Remove(Item& item, Envelope& out) {
  index_.Remove(item);
  if (item.certification) certification_.erase(&item);
  UnlinkExpiry(item);
  const std::uint32_t priority = item.envelope.Priority();
  out = std::move(item.envelope);
  if (item.putBack) {
    putBack_.erase(item.self);
  } else {
    const auto row = waiting_.find(priority);
    row->second.erase(item.self);
    if (row->second.empty()) waiting_.erase(row);
  }
  --count_;
}

void EnvelopeQueue::TakeExpired(std::vector<Envelope>& out, std::size_t limit) {
  if (expiry_.empty()) return;
  const std::int64_t now = Platform::Clock::Instance().WallSeconds();
  for (; limit != 0 && !expiry_.empty() && expiry_.begin()->first < now; --limit) {
    Remove(*expiry_.begin()->second, out.emplace_back());
  }
}

void EnvelopeQueue::TakeAll(std::vector<Envelope>& out) {
  out.reserve(out.size() + count_);
  while (Item* item = NextItem()) Remove(*item, out.emplace_back());
}

}  // namespace MessageRouter
