#include "broker/TypeCodeCache.h"

namespace Broker {

using ThreadHelper::Guard;

// Never destroyed: the ORB's own type codes may be gone before this would be.
TypeCodeCache& TypeCodeCache::Instance() {
  static auto* const cache = new TypeCodeCache;
  return *cache;
}

CORBA::TypeCode_ptr TypeCodeCache::Find(std::string_view bytes) {
  if (bytes.size() > kMaxBytes) return CORBA::TypeCode::_nil();
  const Guard guard(mutex_);
  if (!guard) return CORBA::TypeCode::_nil();
  const auto found = read_.find(bytes);
  if (found == read_.end()) return CORBA::TypeCode::_nil();
  return CORBA::TypeCode::_duplicate(found->second->typeCode);
}

void TypeCodeCache::Keep(std::string_view bytes, CORBA::TypeCode_ptr typeCode) {
  if (bytes.size() > kMaxBytes) return;
  auto entry = std::make_unique<Read>();
  entry->bytes = bytes;
  entry->typeCode = CORBA::TypeCode::_duplicate(typeCode);
  decltype(read_) outdated;  // destroyed without the lock
  const Guard guard(mutex_);
  if (!guard) return;
  if (read_.size() >= kMaxEntries) outdated.swap(read_);
  const std::string_view key = entry->bytes;
  read_.try_emplace(key, std::move(entry));
}

TypeCodeCache::Bytes TypeCodeCache::BytesOf(CORBA::TypeCode_ptr typeCode) {
  const Guard guard(mutex_);
  if (!guard) return nullptr;
  const auto found = written_.find(typeCode);
  return found == written_.end() ? nullptr : found->second.bytes;
}

void TypeCodeCache::KeepBytes(CORBA::TypeCode_ptr typeCode, const Bytes& bytes) {
  if (bytes->size() > kMaxBytes) return;
  Written entry{CORBA::TypeCode::_duplicate(typeCode), bytes};
  decltype(written_) outdated;
  const Guard guard(mutex_);
  if (!guard) return;
  if (written_.size() >= kMaxEntries) outdated.swap(written_);
  written_.try_emplace(typeCode, std::move(entry));
}

}  // namespace Broker
