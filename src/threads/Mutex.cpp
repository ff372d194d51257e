#include "threads/Mutex.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "logging/Log.h"
#include "platform/Process.h"
#include "threads/FailLocks.h"

namespace ThreadHelper {
namespace {

thread_local unsigned locksToFail = 0;
thread_local unsigned locksToSpare = 0;

bool ShallFail() {
  if (locksToFail == 0) return false;
  if (locksToSpare != 0) {
    --locksToSpare;
    return false;
  }
  --locksToFail;
  return true;
}

[[noreturn]] void EndForSelfLock() {
  MessageRouter::LogError("A thread asked for a lock that it holds already\n");
  Platform::ExitProcess(-1);
}

// A system lock that knows its owner says so instead of waiting for ever.
bool Taken(int result) {
  if (result == 0) return true;
  if (errno == EDEADLK) EndForSelfLock();
  return false;
}

class CheckingAttributes {
 public:
  CheckingAttributes() {
    pthread_mutexattr_init(&attributes_);
    pthread_mutexattr_settype(&attributes_, PTHREAD_MUTEX_ERRORCHECK);
  }
  ~CheckingAttributes() { pthread_mutexattr_destroy(&attributes_); }
  CheckingAttributes(const CheckingAttributes&) = delete;
  CheckingAttributes& operator=(const CheckingAttributes&) = delete;
  ACE_mutexattr_t* Get() { return &attributes_; }

 private:
  ACE_mutexattr_t attributes_;
};

// The system keeps the writer of a shared lock but not its readers, and a reader that asks for the
// write lock would wait for itself. What a thread holds to read is therefore kept here.
constexpr std::size_t kReadsTracked = 16;
struct HeldReads {
  std::array<const RWMutex*, kReadsTracked> locks{};
  std::size_t count = 0;
};
thread_local HeldReads heldReads;

bool HoldsRead(const RWMutex* mutex) {
  const auto* const begin = heldReads.locks.data();
  return std::find(begin, begin + heldReads.count, mutex) != begin + heldReads.count;
}

void NoteRead(const RWMutex* mutex) {
  if (heldReads.count < kReadsTracked) heldReads.locks[heldReads.count++] = mutex;
}

void ForgetRead(const RWMutex* mutex) {
  auto* const begin = heldReads.locks.data();
  auto* const end = begin + heldReads.count;
  auto* const found = std::find(begin, end, mutex);
  if (found == end) return;
  std::copy(found + 1, end, found);
  --heldReads.count;
}

}  // namespace

Mutex::Mutex() : mutex_(nullptr, CheckingAttributes().Get()) {}

Mutex::~Mutex() = default;

bool Mutex::Acquire() {
  return !ShallFail() && Taken(mutex_.acquire());
}

void Mutex::Release() {
  mutex_.release();
}

RWMutex::RWMutex() = default;

RWMutex::~RWMutex() = default;

bool RWMutex::AcquireRead() {
  if (ShallFail()) return false;
  if (HoldsRead(this)) EndForSelfLock();
  if (!Taken(mutex_.acquire_read())) return false;
  NoteRead(this);
  return true;
}

bool RWMutex::AcquireWrite() {
  if (ShallFail()) return false;
  if (HoldsRead(this)) EndForSelfLock();
  return Taken(mutex_.acquire_write());
}

void RWMutex::Release() {
  ForgetRead(this);
  mutex_.release();
}

// The compiler's analysis takes a guard as holding its lock: the caller's test of the guard is what
// makes that true.
Guard::Guard(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex), held_(mutex.Acquire()) {}

Guard::~Guard() NO_THREAD_SAFETY_ANALYSIS {
  if (held_) mutex_.Release();
}

ReadGuard::ReadGuard(RWMutex& mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                 held_(mutex.AcquireRead()) {}

ReadGuard::~ReadGuard() NO_THREAD_SAFETY_ANALYSIS {
  if (held_) mutex_.Release();
}

WriteGuard::WriteGuard(RWMutex& mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                   held_(mutex.AcquireWrite()) {}

WriteGuard::~WriteGuard() NO_THREAD_SAFETY_ANALYSIS {
  if (held_) mutex_.Release();
}

Condition::Condition(Mutex& mutex) : condition_(mutex.mutex_, attributes_) {}

Condition::~Condition() = default;

bool Condition::Wait() {
  return condition_.wait() == 0;
}

bool Condition::WaitFor(std::chrono::microseconds time, bool* timedOut) {
  // The condition's clock is the system's monotonic one, which is also what steady_clock reads. A
  // replaced process clock does not move it.
  const auto end = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now().time_since_epoch() + time);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(end);
  const ACE_Time_Value absolute(seconds.count(), (end - seconds).count());
  const bool signalled = condition_.wait(&absolute) == 0;
  if (timedOut != nullptr) *timedOut = !signalled && errno == ETIME;
  return signalled;
}

void Condition::Signal() {
  condition_.signal();
}

void Condition::Broadcast() {
  condition_.broadcast();
}

void FailNextLocks(unsigned count) {
  FailLocksAfter(0, count);
}

void FailLocksAfter(unsigned spared, unsigned count) {
  locksToSpare = spared;
  locksToFail = count;
}

}  // namespace ThreadHelper
