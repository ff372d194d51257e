#pragma once

#include <cstdint>

#include "threads/Mutex.h"

namespace MessageRouter {

// 32-bit ids, unique within one router for about 388 days: seven bits of sequence above 25 bits of
// seconds. At most 128 a second are made; the caller of the next one waits,
// without its place at the gate.
// Threads: any.
class MessageIdGenerator {
 public:
  static MessageIdGenerator& Instance();
  MessageIdGenerator();

  // 0 if the lock fails.
  std::uint32_t NextMessageId();

 private:
  static constexpr unsigned kSequenceBits = 7;
  static constexpr std::uint32_t kTimeMask = 0xFFFFFFFFu >> kSequenceBits;
  static constexpr std::uint32_t kSequenceLimit = (1u << kSequenceBits) - 1;
  static constexpr unsigned kShift = 32 - kSequenceBits;

  ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::int64_t lastTime_ GUARDED_BY(mutex_);
  std::uint32_t sequence_ GUARDED_BY(mutex_) = 0;
};

}  // namespace MessageRouter
