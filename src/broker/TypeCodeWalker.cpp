#include "broker/TypeCodeWalker.h"

#include <omniORB4/CORBA.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

#include "broker/TypeCodeGuard.h"

namespace Broker {
namespace {

using TypeCodeGuard::kMaxDepth;
using TypeCodeGuard::kMaxEnumerators;
using TypeCodeGuard::kMaxLeaves;
using TypeCodeGuard::kMaxLeavesInAll;
using TypeCodeGuard::kMaxMembers;
using TypeCodeGuard::kMaxNameBytes;
using TypeCodeGuard::kMaxNodes;
using TypeCodeGuard::kMaxSimpleLeaves;
using TypeCodeGuard::kMaxTypeCodeBytes;

constexpr std::uint32_t kIndirection = 0xffffffff;
// An indirection points back at least past itself and its own kind.
constexpr std::int32_t kNearestIndirection = -8;
constexpr std::int32_t kNoDefault = -1;
constexpr std::int32_t kOrbsImplicitDefault = -2;
constexpr std::uint32_t kMinEncapsulation = 4;

[[noreturn]] void Refuse() {
  throw TypeCodeWalker::Refused();
}

// The size of a union's label for a discriminator of that kind.
std::optional<std::size_t> LabelSize(std::uint32_t kind) {
  switch (kind) {
    case CORBA::tk_boolean:
    case CORBA::tk_char:
      return 1;
    case CORBA::tk_short:
    case CORBA::tk_ushort:
      return 2;
    case CORBA::tk_long:
    case CORBA::tk_ulong:
    case CORBA::tk_enum:
      return 4;
    case CORBA::tk_longlong:
    case CORBA::tk_ulonglong:
      return 8;
    default:
      return std::nullopt;
  }
}

}  // namespace

TypeCodeWalker::TypeCodeWalker(const unsigned char* bytes, std::size_t size)
    : bytes_(bytes), size_(size) {}

bool TypeCodeWalker::IsComplex(std::uint32_t kind) {
  switch (kind) {
    case CORBA::tk_objref:
    case CORBA::tk_struct:
    case CORBA::tk_union:
    case CORBA::tk_enum:
    case CORBA::tk_sequence:
    case CORBA::tk_array:
    case CORBA::tk_alias:
    case CORBA::tk_except:
      return true;
    default:
      return false;
  }
}

void TypeCodeWalker::Check() {
  Cursor cursor{0, size_, 0, false};
  ReadTypeCode(cursor, 0);
}

void TypeCodeWalker::Scrub(unsigned char* bytes, std::size_t size) {
  TypeCodeWalker walker(bytes, size);
  walker.writable_ = bytes;
  walker.Check();
}

TypeCodeWalker::Shape TypeCodeWalker::ReadTypeCode(Cursor& cursor, unsigned depth) {
  if (depth > kMaxDepth || ++nodeCount_ > kMaxNodes) Refuse();
  Align(cursor, 4);
  const std::size_t offset = cursor.position;
  const std::uint32_t kind = ReadULong(cursor);
  if (kind == kIndirection) return ReadIndirection(cursor, offset);

  const std::size_t index = nodes_.size();
  nodes_.push_back({offset, {}, false});
  Shape shape;
  shape.kind = kind;
  switch (kind) {
    case CORBA::tk_null:
    case CORBA::tk_void:
      shape.empty = true;
      break;
    case CORBA::tk_short:
    case CORBA::tk_long:
    case CORBA::tk_ushort:
    case CORBA::tk_ulong:
    case CORBA::tk_float:
    case CORBA::tk_double:
    case CORBA::tk_boolean:
    case CORBA::tk_octet:
    case CORBA::tk_longlong:
    case CORBA::tk_ulonglong:
    case CORBA::tk_longdouble:
      break;
    case CORBA::tk_char:
    case CORBA::tk_wchar:
    case CORBA::tk_any:
    case CORBA::tk_TypeCode:
      shape.simple = false;
      break;
    case CORBA::tk_string:
    case CORBA::tk_wstring:
      ReadULong(cursor);  // the bound
      shape.simple = false;
      break;
    default:
      // Not so: fixed, value types, native, abstract and local interfaces, principal, unknown.
      if (!IsComplex(kind)) Refuse();
      shape = ReadComplex(kind, cursor, depth);
  }
  leavesInAll_ += shape.leaves;
  if (shape.leaves > kMaxLeaves || leavesInAll_ > kMaxLeavesInAll) Refuse();
  nodes_[index].shape = shape;
  nodes_[index].finished = true;
  return shape;
}

// Only to a type code that is complete: one that is still being read would make the type recursive.
TypeCodeWalker::Shape TypeCodeWalker::ReadIndirection(Cursor& cursor, std::size_t typeCodeOffset) {
  Align(cursor, 4);
  const std::size_t base = cursor.position;
  const auto distance = static_cast<std::int32_t>(ReadULong(cursor));
  if (distance > kNearestIndirection) Refuse();
  const std::size_t back = static_cast<std::size_t>(-static_cast<std::int64_t>(distance));
  if (back > base || base - back >= typeCodeOffset) Refuse();
  const auto node = std::lower_bound(
      nodes_.begin(), nodes_.end(), base - back,
      [](const Node& candidate, std::size_t offset) { return candidate.offset < offset; });
  if (node == nodes_.end() || node->offset != base - back || !node->finished) Refuse();
  return node->shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadComplex(std::uint32_t kind, Cursor& cursor,
                                                  unsigned depth) {
  const std::uint32_t length = ReadULong(cursor);
  if (length < kMinEncapsulation || length > kMaxTypeCodeBytes) Refuse();
  Cursor body{cursor.position, 0, cursor.position, false};
  Skip(cursor, length);
  body.end = cursor.position;
  const unsigned char byteOrder = bytes_[body.position++];
  if (byteOrder > 1) Refuse();
  body.swapped = (byteOrder == 1) != (std::endian::native == std::endian::little);

  if (kind == CORBA::tk_sequence) return ReadSequence(body, depth);
  if (kind == CORBA::tk_array) return ReadArray(body, depth);
  SkipText(body);  // repository id
  SkipText(body);  // name
  switch (kind) {
    case CORBA::tk_objref: {
      Shape shape;
      shape.kind = kind;
      shape.simple = false;
      return shape;
    }
    case CORBA::tk_alias:
      return ReadAlias(body, depth);
    case CORBA::tk_enum:
      return ReadEnum(body);
    case CORBA::tk_union:
      return ReadUnion(body, depth);
    default: {
      Shape shape = ReadStruct(body, depth);
      shape.kind = kind;
      return shape;
    }
  }
}

TypeCodeWalker::Shape TypeCodeWalker::ReadSequence(Cursor& body, unsigned depth) {
  const Shape element = ReadTypeCode(body, depth + 1);
  ReadULong(body);  // the bound
  // The ORB copies many simple elements as one block and computes its size in 32 bits.
  if (element.empty || (element.simple && element.leaves > kMaxSimpleLeaves)) Refuse();
  Shape shape;
  shape.kind = CORBA::tk_sequence;
  shape.simple = false;
  return shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadArray(Cursor& body, unsigned depth) {
  const Shape element = ReadTypeCode(body, depth + 1);
  const std::uint32_t length = ReadULong(body);
  if (element.empty || length == 0 || length > kMaxLeaves) Refuse();
  Shape shape;
  shape.kind = CORBA::tk_array;
  shape.simple = element.simple;
  shape.leaves = element.leaves * length;
  return shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadStruct(Cursor& body, unsigned depth) {
  const std::uint32_t members = ReadULong(body);
  if (members > kMaxMembers) Refuse();
  Shape shape;
  shape.leaves = 0;
  shape.empty = true;
  for (std::uint32_t i = 0; i < members; ++i) {
    SkipText(body);
    const Shape member = ReadTypeCode(body, depth + 1);
    shape.leaves += member.leaves;
    shape.simple = shape.simple && member.simple;
    shape.empty = shape.empty && member.empty;
    if (shape.leaves > kMaxLeaves) Refuse();
  }
  return shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadUnion(Cursor& body, unsigned depth) {
  const Shape discriminator = ReadTypeCode(body, depth + 1);
  const std::optional<std::size_t> labelSize = LabelSize(discriminator.kind);
  if (!labelSize) Refuse();
  const auto defaultIndex = static_cast<std::int32_t>(ReadULong(body));
  if (writable_ != nullptr && defaultIndex == kOrbsImplicitDefault) {
    // All bits set, hence the same in either byte order.
    std::memset(writable_ + body.position - sizeof kNoDefault, 0xff, sizeof kNoDefault);
  }
  const std::uint32_t members = ReadULong(body);
  if (members > kMaxMembers || defaultIndex < kOrbsImplicitDefault ||
      defaultIndex >= static_cast<std::int32_t>(members)) {
    Refuse();
  }
  Shape shape;
  shape.kind = CORBA::tk_union;
  shape.simple = false;
  for (std::uint32_t i = 0; i < members; ++i) {
    const bool isDefault = static_cast<std::int32_t>(i) == defaultIndex;
    SkipLabel(body, *labelSize, !isDefault && discriminator.kind == CORBA::tk_boolean);
    SkipText(body);
    shape.leaves = std::max(shape.leaves, ReadTypeCode(body, depth + 1).leaves);
  }
  return shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadEnum(Cursor& body) {
  const std::uint32_t enumerators = ReadULong(body);
  if (enumerators == 0 || enumerators > kMaxEnumerators) Refuse();
  for (std::uint32_t i = 0; i < enumerators; ++i) SkipText(body);
  Shape shape;
  shape.kind = CORBA::tk_enum;
  return shape;
}

TypeCodeWalker::Shape TypeCodeWalker::ReadAlias(Cursor& body, unsigned depth) {
  return ReadTypeCode(body, depth + 1);
}

void TypeCodeWalker::Align(Cursor& cursor, std::size_t alignment) {
  const std::size_t excess = (cursor.position - cursor.origin) % alignment;
  if (excess == 0) return;
  const std::size_t padding = alignment - excess;
  const std::size_t at = cursor.position;
  Skip(cursor, padding);
  if (writable_ != nullptr) std::memset(writable_ + at, 0, padding);
}

void TypeCodeWalker::Skip(Cursor& cursor, std::size_t size) const {
  if (size > cursor.end - cursor.position) Refuse();
  cursor.position += size;
}

std::uint32_t TypeCodeWalker::ReadULong(Cursor& cursor) {
  Align(cursor, 4);
  const std::size_t at = cursor.position;
  std::uint32_t value = 0;
  Skip(cursor, sizeof value);
  std::memcpy(&value, bytes_ + at, sizeof value);
  return cursor.swapped ? __builtin_bswap32(value) : value;
}

// A text counts its closing zero, and holds no other.
void TypeCodeWalker::SkipText(Cursor& cursor) {
  const std::uint32_t size = ReadULong(cursor);
  if (size == 0 || size > kMaxNameBytes) Refuse();
  const unsigned char* const text = bytes_ + cursor.position;
  Skip(cursor, size);
  if (std::memchr(text, 0, size) != text + size - 1) Refuse();
}

void TypeCodeWalker::SkipLabel(Cursor& cursor, std::size_t size, bool isBoolean) {
  Align(cursor, size);
  const std::size_t at = cursor.position;
  Skip(cursor, size);
  if (isBoolean && bytes_[at] > 1) Refuse();
}

}  // namespace Broker
