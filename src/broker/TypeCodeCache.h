#pragma once

#include <omniORB4/CORBA.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "threads/Mutex.h"

namespace Broker {

// Type codes that were read or written lately: most messages carry one of a few, and checking,
// building and writing one costs more than all the rest of a small payload.
// Small and bounded; what does not fit empties it. Lives as long as the process.
// Threads: any.
class TypeCodeCache {
 public:
  using Bytes = std::shared_ptr<const std::string>;

  static constexpr std::size_t kMaxEntries = 64;
  static constexpr std::size_t kMaxBytes = 4096;  // a larger type code is not kept

  static TypeCodeCache& Instance();

  // The type code that was built from these bytes, as the caller's own reference; nil if unknown.
  CORBA::TypeCode_ptr Find(std::string_view bytes);
  void Keep(std::string_view bytes, CORBA::TypeCode_ptr typeCode);

  // The encapsulation that stands for this object; null if unknown.
  Bytes BytesOf(CORBA::TypeCode_ptr typeCode);
  void KeepBytes(CORBA::TypeCode_ptr typeCode, const Bytes& bytes);

 private:
  TypeCodeCache() = default;

  struct Read {
    std::string bytes;
    CORBA::TypeCode_var typeCode;
  };
  // Holds the object, so that its address can't come to mean another one.
  struct Written {
    CORBA::TypeCode_var typeCode;
    Bytes bytes;
  };

  // Leaf lock.
  ThreadHelper::Mutex mutex_;
  std::unordered_map<std::string_view, std::unique_ptr<Read>> read_ GUARDED_BY(mutex_);
  std::unordered_map<CORBA::TypeCode_ptr, Written> written_ GUARDED_BY(mutex_);
};

}  // namespace Broker
