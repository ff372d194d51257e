#include "routing/EnvelopeQueue.h"

#include <new>
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

EnvelopeQueue::Taken::Taken(Envelope&& envelope) {
  item_.emplace_back(std::move(envelope));
}

Envelope& EnvelopeQueue::Taken::Get() {
  return item_.front().envelope;
}

void EnvelopeQueue::Enqueue(Envelope&& envelope) {
  const auto row = waiting_.try_emplace(envelope.Priority()).first;
  List added;
  try {
    Item& item = added.emplace_back(std::move(envelope));
    item.self = added.begin();
    item.arrival = arrivals_++;
    ListItem(item);
  } catch (...) {
    if (!added.empty()) envelope = std::move(added.front().envelope);
    if (row->second.empty()) waiting_.erase(row);
    throw;
  }
  row->second.splice(row->second.end(), added);
  ++count_;
}

void EnvelopeQueue::Requeue(Taken& taken) noexcept {
  if (taken.Empty()) return;
  Item& item = taken.item_.front();
  item.self = taken.item_.begin();
  item.arrival = arrivals_++;
  item.putBack = true;
  putBack_.splice(putBack_.begin(), taken.item_);
  ++count_;
  try {
    ListItem(item);
  } catch (...) {
    // It is found without, among the few that were put back.
    ++unlisted_;
  }
}

void EnvelopeQueue::ListItem(Item& item) {
  item.certification = IsCertificationType(item.envelope.Type());
  try {
    if (item.certification) certification_.insert(&item);
    LinkExpiry(item);
    index_.Insert(item, HashOf(item.envelope.Originator(), item.envelope.MessageId()));
  } catch (...) {
    if (item.certification) certification_.erase(&item);
    UnlinkExpiry(item);
    throw;
  }
  item.listed = true;
}

void EnvelopeQueue::UnlistItem(Item& item) {
  if (!item.listed) {
    --unlisted_;
    return;
  }
  index_.Remove(item);
  if (item.certification) certification_.erase(&item);
  UnlinkExpiry(item);
  item.listed = false;
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
  } else {
    const auto row = expiry_.find(item.envelope.Ttl());
    if (row->second == nullptr) expiry_.erase(row);
  }
  item.nextToExpire = nullptr;
  item.expirySlot = nullptr;
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
  if (unlisted_ != 0) {
    for (const Item& item : putBack_) {
      if (item.certification) return &item.envelope;
    }
  }
  return certification_.empty() ? nullptr : &(*certification_.begin())->envelope;
}

bool EnvelopeQueue::PopNext(Envelope& out) {
  Item* item = NextItem();
  if (item == nullptr) return false;
  Remove(*item, out);
  return true;
}

bool EnvelopeQueue::PopNext(Taken& out) {
  Item* item = NextItem();
  if (item == nullptr) return false;
  out.item_ = Extract(*item);
  return true;
}

EnvelopeQueue::Item* EnvelopeQueue::Find(const std::string& originator, std::uint32_t messageId) {
  // What a peer acknowledges is nearly always the next one; this also keeps a queue full of copies
  // of one message as fast as any other.
  Item* const next = NextItem();
  if (next == nullptr || Matches(next->envelope, originator, messageId)) return next;
  if (unlisted_ != 0) {
    for (Item& item : putBack_) {
      if (Matches(item.envelope, originator, messageId)) return &item;
    }
  }
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

EnvelopeQueue::List EnvelopeQueue::Extract(Item& item) {
  UnlistItem(item);
  List taken;
  if (item.putBack) {
    taken.splice(taken.begin(), putBack_, item.self);
  } else {
    const auto row = waiting_.find(item.envelope.Priority());
    taken.splice(taken.begin(), row->second, item.self);
    if (row->second.empty()) waiting_.erase(row);
  }
  --count_;
  return taken;
}

void EnvelopeQueue::Remove(Item& item, Envelope& out) {
  out = std::move(Extract(item).front().envelope);
}

bool EnvelopeQueue::RemoveTo(Item& item, std::vector<Envelope>& out) {
  try {
    out.emplace_back();
  } catch (const std::bad_alloc&) {
    return false;
  }
  Remove(item, out.back());
  return true;
}

void EnvelopeQueue::TakeExpired(std::vector<Envelope>& out, std::size_t limit) {
  if (expiry_.empty() && unlisted_ == 0) return;
  const std::int64_t now = Platform::Clock::Instance().WallSeconds();
  for (; limit != 0 && !expiry_.empty() && expiry_.begin()->first < now; --limit) {
    if (!RemoveTo(*expiry_.begin()->second, out)) return;
  }
  for (auto next = putBack_.begin(); limit != 0 && unlisted_ != 0 && next != putBack_.end();) {
    Item& item = *next++;
    const std::int64_t ttl = item.envelope.Ttl();
    if (item.listed || ttl == 0 || ttl >= now) continue;
    if (!RemoveTo(item, out)) return;
    --limit;
  }
}

void EnvelopeQueue::TakeAll(std::vector<Envelope>& out) {
  // Not for each of many queues in turn: every time all before it would be moved.
  if (out.empty()) out.reserve(count_);
  while (Item* item = NextItem()) Remove(*item, out.emplace_back());
}

}  // namespace MessageRouter
