#pragma once

#include <ace/OS_NS_Thread.h>

#include <atomic>
#include <cstdint>

#include "logging/Streamable.h"
#include "threads/Mutex.h"

namespace ThreadHelper {

class Destroyable {
 public:
  virtual ~Destroyable() = default;
};

// The body of a thread.
class Processable : public Destroyable {
 public:
  virtual void Process() = 0;
};

// Reports an exception that is not a std::exception. Called within the handler that caught it, so
// it may throw it again to itself to learn what it is. Returns whether it has logged it.
using UnknownExceptionReporter = bool (*)(const char* prefix);
// For the whole process; null for none. Lets a higher folder name its own kinds of exceptions.
void SetUnknownExceptionReporter(UnknownExceptionReporter reporter);

// An object that owns one thread. An exception that leaves Process ends the process with status -1,
// at once: a router has no half-alive state in which a thread is silently gone.
// Every concrete class calls Stop or Join in its own destructor, before its members go; this class
// only asserts that it is idle, and ends the process where it isn't.
class BasicThreadHelper : public MessageRouter::Streamable, public Processable {
 public:
  BasicThreadHelper() = default;
  ~BasicThreadHelper() override;
  BasicThreadHelper(const BasicThreadHelper&) = delete;
  BasicThreadHelper& operator=(const BasicThreadHelper&) = delete;

  // Throws std::runtime_error "BasicThreadHelper is already running" from any state but idle, and
  // "BasicThreadHelper failed to start thread".
  virtual void Start();
  // Waits for the thread and makes the object idle again; 0 at once where no thread is attached.
  // For the object's owner; a call by the object's own thread is a fault of the program and ends
  // the process.
  int Join();

  std::ostream& write(std::ostream& stream) const override;

 private:
  static ACE_THR_FUNC_RETURN do_thread(void* self);

  void Run();

  std::atomic<std::uint32_t> m_thread{0};  // the kernel's number; 0 while no thread is attached
  ACE_thread_t handle_{};                  // the owner's
};

// A thread that can be told to stop. Stop makes the object idle, and it can be started again.
class StoppableThreadHelper : public BasicThreadHelper {
 public:
  StoppableThreadHelper();
  ~StoppableThreadHelper() override;

  bool IsTerminated();
  // Tells the thread to stop and wakes it. Does not wait for it.
  void RequestStop();
  // RequestStop, Join, and ready to be started again.
  virtual void Stop();
  // True at once when the thread is to stop. Both arguments 0 wait without limit. True if the wait
  // ended by a signal, false if it timed out (`errno` is then ETIME) or failed.
  bool Wait(unsigned seconds, unsigned milliseconds);
  // Wakes a Wait without stopping.
  void Signal();

  std::ostream& write(std::ostream& stream) const override;

 protected:
  // The variants for callers that hold mutex_.
  void UnlockedRequestStop() REQUIRES(mutex_);
  bool UnlockedWait(unsigned seconds, unsigned milliseconds) REQUIRES(mutex_);

  bool m_terminate GUARDED_BY(mutex_) = false;
  mutable Mutex mutex_;
  Condition condition_;
};

}  // namespace ThreadHelper
