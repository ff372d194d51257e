#include "broker/TypeCodeGuard.h"

#include <dlfcn.h>
#include <omniORB4/CORBA.h>
#include <omniORB4/cdrStream.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "broker/TypeCodeCache.h"
#include "broker/TypeCodeWalker.h"

// The three functions at the end of this file take the places of the ORB library's own: the library
// calls them through its procedure linkage table, where the program's definitions come first. This
// works only while the ORB's dynamic part is a shared library and the symbols here are visible;
// SelfTest tells, and an ORB is not made without it. SelfTest stands in this file so that the
// linker takes the file wherever an ORB is used.
namespace Broker::TypeCodeGuard {
namespace {

constexpr std::size_t kHeaderBytes = 8;  // kind and length of a complex type code

using UnmarshalFunction = CORBA::TypeCode_ptr (*)(cdrStream&);
using MarshalFunction = void (*)(CORBA::TypeCode_ptr, cdrStream&);
using ReadAnyFunction = void (*)(CORBA::Any*, cdrStream&);

// The library's own function of that name. Without it nothing could be read or written safely.
template <class Function>
Function Original(const char* symbol) {
  void* const address = ::dlsym(RTLD_NEXT, symbol);
  if (address == nullptr) std::abort();
  return reinterpret_cast<Function>(address);
}

[[noreturn]] void Refuse(cdrStream& stream) {
  throw CORBA::MARSHAL(0, static_cast<CORBA::CompletionStatus>(stream.completion()));
}

// The ORB's one object for a kind without parameters; null for other kinds.
CORBA::TypeCode_ptr Primitive(CORBA::ULong kind) {
  switch (kind) {
    case CORBA::tk_null:
      return CORBA::_tc_null;
    case CORBA::tk_void:
      return CORBA::_tc_void;
    case CORBA::tk_short:
      return CORBA::_tc_short;
    case CORBA::tk_long:
      return CORBA::_tc_long;
    case CORBA::tk_ushort:
      return CORBA::_tc_ushort;
    case CORBA::tk_ulong:
      return CORBA::_tc_ulong;
    case CORBA::tk_float:
      return CORBA::_tc_float;
    case CORBA::tk_double:
      return CORBA::_tc_double;
    case CORBA::tk_boolean:
      return CORBA::_tc_boolean;
    case CORBA::tk_char:
      return CORBA::_tc_char;
    case CORBA::tk_octet:
      return CORBA::_tc_octet;
    case CORBA::tk_any:
      return CORBA::_tc_any;
    case CORBA::tk_TypeCode:
      return CORBA::_tc_TypeCode;
    case CORBA::tk_longlong:
      return CORBA::_tc_longlong;
    case CORBA::tk_ulonglong:
      return CORBA::_tc_ulonglong;
    case CORBA::tk_wchar:
      return CORBA::_tc_wchar;
    default:
      return CORBA::TypeCode::_nil();
  }
}

// What the any that this thread is reading has cost so far, and how deep it is nested.
struct AnyState {
  unsigned depth = 0;
  std::size_t work = 0;
};
thread_local AnyState currentAny;

class AnyLevel {
 public:
  explicit AnyLevel(cdrStream& stream) {
    if (currentAny.depth == kMaxAnyDepth) Refuse(stream);
    if (currentAny.depth++ == 0) currentAny.work = 0;
  }
  ~AnyLevel() { --currentAny.depth; }
  AnyLevel(const AnyLevel&) = delete;
  AnyLevel& operator=(const AnyLevel&) = delete;
  bool Outermost() const { return currentAny.depth == 1; }
};

void Charge(cdrStream& stream, std::size_t bytes) {
  if (currentAny.depth == 0) return;
  currentAny.work += bytes + kWorkPerTypeCode;
  if (currentAny.work > kMaxWorkPerAny) Refuse(stream);
}

// The stream of an any's value. The ORB computes the size of a block in 32 bits and reserves memory
// for it before it looks whether the message holds so much: a size that has wrapped below zero
// would be written past the end of a buffer.
class CheckedStream : public cdrStreamAdapter {
 public:
  explicit CheckedStream(cdrStream& stream) : cdrStreamAdapter(stream) {}
  void copy_to(cdrStream& target, int size, omni::alignment_t alignment) override {
    if (size < 0 || !checkInputOverrun(1, static_cast<CORBA::ULong>(size), alignment)) {
      Refuse(*this);
    }
    cdrStreamAdapter::copy_to(target, size, alignment);
  }
};

// Kind and length in the byte order of this machine, then the encapsulation as it came. The memory
// is 8-aligned, as the ORB's memory streams want it.
class ComplexTypeCode {
 public:
  ComplexTypeCode(CORBA::ULong kind, cdrStream& stream) {
    CORBA::ULong length;
    length <<= stream;
    if (length == 0 || length > kMaxTypeCodeBytes || !stream.checkInputOverrun(1, length)) {
      Refuse(stream);
    }
    size_ = kHeaderBytes + length;
    words_.resize((size_ + sizeof words_[0] - 1) / sizeof words_[0]);
    std::memcpy(Bytes(), &kind, sizeof kind);
    std::memcpy(Bytes() + sizeof kind, &length, sizeof length);
    stream.get_octet_array(Bytes() + kHeaderBytes, static_cast<int>(length));
  }
  unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(words_.data()); }
  std::size_t Size() const { return size_; }
  std::string_view View() { return {reinterpret_cast<const char*>(words_.data()), size_}; }

 private:
  std::vector<std::uint64_t> words_;
  std::size_t size_ = 0;
};

CORBA::TypeCode_ptr ReadComplex(CORBA::ULong kind, cdrStream& stream, UnmarshalFunction original) {
  ComplexTypeCode typeCode(kind, stream);
  Charge(stream, typeCode.Size());
  // Outside of an any the result may belong to one caller alone: the ORB's compact form of a type
  // code takes the names out of an object that it has read for itself.
  const bool shared = currentAny.depth > 0;
  if (shared) {
    const CORBA::TypeCode_ptr known = TypeCodeCache::Instance().Find(typeCode.View());
    if (!CORBA::is_nil(known)) return known;
  }
  try {
    TypeCodeWalker(typeCode.Bytes(), typeCode.Size()).Check();
  } catch (const TypeCodeWalker::Refused&) {
    Refuse(stream);
  }
  cdrMemoryStream checked(typeCode.Bytes(), typeCode.Size());
  checked.setByteSwapFlag(omni::myByteOrder);
  const CORBA::TypeCode_ptr result = original(checked);
  if (shared) TypeCodeCache::Instance().Keep(typeCode.View(), result);
  return result;
}

CORBA::TypeCode_ptr Read(cdrStream& stream, UnmarshalFunction original) {
  CORBA::ULong kind;
  kind <<= stream;
  if (TypeCodeWalker::IsComplex(kind)) return ReadComplex(kind, stream, original);
  Charge(stream, 0);
  if (kind == CORBA::tk_string || kind == CORBA::tk_wstring) {
    CORBA::ULong bound;
    bound <<= stream;
    if (kind == CORBA::tk_string) {
      return bound == 0 ? CORBA::TypeCode::_duplicate(CORBA::_tc_string)
                        : CORBA::TypeCode::NP_string_tc(bound);
    }
    return bound == 0 ? CORBA::TypeCode::_duplicate(CORBA::_tc_wstring)
                      : CORBA::TypeCode::NP_wstring_tc(bound);
  }
  const CORBA::TypeCode_ptr primitive = Primitive(kind);
  if (CORBA::is_nil(primitive)) Refuse(stream);
  return CORBA::TypeCode::_duplicate(primitive);
}

// The bytes after the kind and the length, the same in every run.
std::string Encapsulation(CORBA::TypeCode_ptr typeCode, MarshalFunction original) {
  cdrMemoryStream raw;
  original(typeCode, raw);
  auto* const bytes = static_cast<unsigned char*>(raw.bufPtr());
  try {
    TypeCodeWalker::Scrub(bytes, raw.bufSize());
  } catch (const TypeCodeWalker::Refused&) {
    // A type that the guard would not read: it goes out as the ORB has written it.
  }
  return {reinterpret_cast<const char*>(bytes) + kHeaderBytes, raw.bufSize() - kHeaderBytes};
}

void Write(CORBA::TypeCode_ptr typeCode, cdrStream& stream, MarshalFunction original) {
  if (CORBA::is_nil(typeCode) || !TypeCodeWalker::IsComplex(typeCode->kind())) {
    original(typeCode, stream);
    return;
  }
  TypeCodeCache::Bytes bytes = TypeCodeCache::Instance().BytesOf(typeCode);
  if (!bytes) {
    bytes = std::make_shared<const std::string>(Encapsulation(typeCode, original));
    TypeCodeCache::Instance().KeepBytes(typeCode, bytes);
  }
  const CORBA::ULong kind = typeCode->kind();
  const auto length = static_cast<CORBA::ULong>(bytes->size());
  kind >>= stream;
  length >>= stream;
  stream.put_octet_array(reinterpret_cast<const CORBA::Octet*>(bytes->data()),
                         static_cast<int>(length));
}

void ReadAny(CORBA::Any* any, cdrStream& stream, ReadAnyFunction original) {
  const AnyLevel level(stream);
  if (level.Outermost()) {
    CheckedStream checked(stream);
    original(any, checked);
  } else {
    original(any, stream);
  }
}

// The ORB itself reads anys in anys of any depth, so only the guard refuses these.
bool RefusesDeepAnys() {
  cdrMemoryStream stream;
  for (unsigned i = 0; i <= kMaxAnyDepth; ++i) CORBA::ULong(CORBA::tk_any) >>= stream;
  CORBA::ULong(CORBA::tk_null) >>= stream;
  stream.rewindInputPtr();
  CORBA::Any any;
  try {
    any <<= stream;
    return false;
  } catch (const CORBA::MARSHAL&) {
    return true;
  }
}

// An array of the most elements that the guard lets through, and one more: the ORB takes both.
bool RefusesLargeArrays() {
  for (const unsigned excess : {0U, 1U}) {
    const CORBA::TypeCode_var array =
        CORBA::TypeCode::NP_array_tc(kMaxLeaves + excess, CORBA::_tc_octet);
    cdrMemoryStream stream;
    CORBA::TypeCode::marshalTypeCode(array, stream);
    stream.rewindInputPtr();
    bool refused = false;
    try {
      const CORBA::TypeCode_var read = CORBA::TypeCode::unmarshalTypeCode(stream);
    } catch (const CORBA::MARSHAL&) {
      refused = true;
    }
    if (refused != (excess == 1)) return false;
  }
  return true;
}

}  // namespace

bool SelfTest() {
  try {
    return RefusesDeepAnys() && RefusesLargeArrays();
  } catch (const CORBA::Exception&) {
    return false;
  }
}

void RequireInForce() {
  if (!SelfTest()) {
    throw std::runtime_error("The guard against hostile type codes is not in force");
  }
}

}  // namespace Broker::TypeCodeGuard

CORBA::TypeCode_ptr CORBA::TypeCode::unmarshalTypeCode(cdrStream& stream) {
  using namespace Broker::TypeCodeGuard;
  static const auto original =
      Original<UnmarshalFunction>("_ZN5CORBA8TypeCode17unmarshalTypeCodeER9cdrStream");
  return Read(stream, original);
}

void CORBA::TypeCode::marshalTypeCode(CORBA::TypeCode_ptr typeCode, cdrStream& stream) {
  using namespace Broker::TypeCodeGuard;
  static const auto original =
      Original<MarshalFunction>("_ZN5CORBA8TypeCode15marshalTypeCodeEPS0_R9cdrStream");
  Write(typeCode, stream, original);
}

void CORBA::Any::operator<<=(cdrStream& stream) {
  using namespace Broker::TypeCodeGuard;
  static const auto original = Original<ReadAnyFunction>("_ZN5CORBA3AnylSER9cdrStream");
  ReadAny(this, stream, original);
}
