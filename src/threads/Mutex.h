#pragma once

#include <ace/Condition_Attributes.h>
#include <ace/Condition_T.h>
#include <ace/Condition_Thread_Mutex.h>
#include <ace/RW_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <chrono>

#include "platform/Clock.h"
#include "threads/Annotations.h"

// ACE's mutexes, wrapped once so that the compiler can check who holds them.
//
// A lock that cannot be taken makes an operation a silent no-op: its guard is false, and the caller
// returns. The one exception is a thread that asks for a lock that it holds already, be it to read
// or to write: that is a fault of the program and ends the process with status -1.
namespace ThreadHelper {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // False if the lock cannot be taken.
  bool Acquire();
  void Release();

 private:
  friend class Condition;
  ACE_Thread_Mutex mutex_;
};

class CAPABILITY("shared mutex") RWMutex {
 public:
  RWMutex();
  ~RWMutex();
  RWMutex(const RWMutex&) = delete;
  RWMutex& operator=(const RWMutex&) = delete;

  bool AcquireRead();
  bool AcquireWrite();
  void Release();

 private:
  ACE_RW_Thread_Mutex mutex_;
};

// Scoped guards. Test them: `Guard guard(mutex_); if (!guard) return;`
class SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Mutex& mutex) ACQUIRE(mutex);
  ~Guard() RELEASE();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  explicit operator bool() const { return held_; }

 private:
  Mutex& mutex_;
  bool held_;
};

class SCOPED_CAPABILITY ReadGuard {
 public:
  explicit ReadGuard(RWMutex& mutex) ACQUIRE_SHARED(mutex);
  ~ReadGuard() RELEASE_GENERIC();
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;
  explicit operator bool() const { return held_; }

 private:
  RWMutex& mutex_;
  bool held_;
};

class SCOPED_CAPABILITY WriteGuard {
 public:
  explicit WriteGuard(RWMutex& mutex) ACQUIRE(mutex);
  ~WriteGuard() RELEASE();
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;
  explicit operator bool() const { return held_; }

 private:
  RWMutex& mutex_;
  bool held_;
};

// A condition on a mutex, on the steady clock: an administrator who sets the time back freezes
// nobody. The caller of a wait holds the mutex.
class Condition {
 public:
  explicit Condition(Mutex& mutex);
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // Waits without limit. False if the wait failed.
  bool Wait();
  // False if the time ran out (`errno` is then ETIME) or the wait failed; `timedOut`, where given,
  // tells which.
  bool WaitFor(std::chrono::microseconds time, bool* timedOut = nullptr);
  void Signal();
  void Broadcast();

 private:
  ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy> attributes_;
  ACE_Condition<ACE_Thread_Mutex> condition_;
};

// For tests: the next `count` attempts of the calling thread to take a lock fail.
void FailNextLocks(unsigned count);

}  // namespace ThreadHelper
