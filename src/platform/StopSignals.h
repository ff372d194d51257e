#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace Platform {

// The operator's signals, taken by one thread of their own: SIGTERM and SIGINT ask for a stop,
// SIGHUP for a reinitialisation; SIGPIPE is ignored. Make the one object before any other thread
// starts, since threads inherit the blocked signals.
// The first stop arms a watchdog: ten seconds later the process ends with status 0, whatever hangs.
// The destructor disarms it. The signals stay blocked after it, so that a second Ctrl-C does not
// cut an orderly end short.
class StopSignals {
 public:
  // The functions are called on the signal thread, one at a time; they must return soon. One that
  // throws ends the process with status 255, as in every thread. `limit` is the watchdog's.
  // Throws std::runtime_error if the system refuses.
  StopSignals(std::function<void()> stop, std::function<void()> reload,
              std::chrono::milliseconds limit = std::chrono::seconds(10));
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Platform
