#pragma once

#include <cstdint>

#include "threads/Mutex.h"

namespace MessageRouter {

// 32-bit ids, unique within one router for about 388 days: seven bits of sequence above 25 bits of
// seconds. At most 128 a second are made; the caller of the next one waits, without its place at
// the gate.
//
// The router's own messages, answers above all, are made on the thread that routes: all that it
// routes waits while they wait for an id. Clients that send as fast as they can leave them as many
// as they needed in the second before, up to three quarters of all.
// Threads: any.
class MessageIdGenerator {
 public:
  // Whose message it is.
  enum class Origin { kRouter, kClient };

  static MessageIdGenerator& Instance();
  MessageIdGenerator();

  // 0 if the lock fails.
  std::uint32_t NextMessageId(Origin origin = Origin::kRouter);

 private:
  bool UsedUp(Origin origin) const REQUIRES(mutex_);
  void BeginSecond(std::int64_t now) REQUIRES(mutex_);

  static constexpr unsigned kSequenceBits = 7;
  static constexpr std::uint32_t kTimeMask = 0xFFFFFFFFu >> kSequenceBits;
  static constexpr std::uint32_t kSequenceLimit = (1u << kSequenceBits) - 1;
  static constexpr unsigned kShift = 32 - kSequenceBits;

  ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::int64_t lastTime_ GUARDED_BY(mutex_);
  std::uint32_t sequence_ GUARDED_BY(mutex_) = 0;

  // Of this second: what is kept for the router, what it has had, and whether that was too little.
  std::uint32_t kept_ GUARDED_BY(mutex_) = 0;
  std::uint32_t had_ GUARDED_BY(mutex_) = 0;
  bool lacked_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
