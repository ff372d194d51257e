#pragma once

#include <cstdint>

#include "threads/Mutex.h"

namespace MessageRouter {

// The one record of how often in a row a monitored peer, the parent or the client "EM", was found
// busy: a send to it that does not come back shows in nothing else.
// Threads: any. A leaf lock.
class SendFailureRecord {
 public:
  static SendFailureRecord& Instance();

  // Logs the settings, the first time in the process.
  void LogSettings(bool monitoring, std::uint32_t limit);
  // One more visit found the peer busy. At the limit the process ends, with status 0, to be started
  // again. False if the lock can't be taken.
  bool CountFailure(std::uint32_t limit);
  // A delivery to a monitored peer. False if the lock can't be taken.
  bool Clear();
  std::uint32_t Failures() const;

 private:
  SendFailureRecord() = default;

  mutable ThreadHelper::Mutex mutex_;
  std::uint32_t failures_ GUARDED_BY(mutex_) = 0;
  bool settingsLogged_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
