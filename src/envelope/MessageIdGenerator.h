#pragma once

#include <cstdint>

#include "threads/Mutex.h"

namespace MessageRouter {

// 32-bit ids, unique within one router for about 388 days: seven bits of sequence above 25 bits of
// seconds. At most 128 a second are made; the caller of the next one waits, without its place at
// the gate.
//
// All that a router routes waits while the thread that routes waits for an id. Where it had to,
// some are kept for it in the seconds after: as many as it has use for while others ask as fast as
// they can, up to three quarters of all. Threads: any.
class MessageIdGenerator {
 public:
  // The thread that has one is the one that routes.
  class Preference {
   public:
    Preference();
    ~Preference();
    Preference(const Preference&) = delete;
    Preference& operator=(const Preference&) = delete;
    static bool IsThisThreads();
  };

  static MessageIdGenerator& Instance();
  MessageIdGenerator();

  // 0 if the lock fails.
  std::uint32_t NextMessageId();

 private:
  bool UsedUp() const REQUIRES(mutex_);
  void BeginSecond(std::int64_t now) REQUIRES(mutex_);

  static constexpr unsigned kSequenceBits = 7;
  static constexpr std::uint32_t kTimeMask = 0xFFFFFFFFu >> kSequenceBits;
  static constexpr std::uint32_t kSequenceLimit = (1u << kSequenceBits) - 1;
  static constexpr unsigned kShift = 32 - kSequenceBits;

  ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition condition_;
  std::int64_t lastTime_ GUARDED_BY(mutex_);
  std::uint32_t sequence_ GUARDED_BY(mutex_) = 0;

  // Of this second, for who is preferred: what is kept, what was had, and whether it was too
  // little.
  std::uint32_t kept_ GUARDED_BY(mutex_) = 0;
  std::uint32_t had_ GUARDED_BY(mutex_) = 0;
  bool lacked_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
