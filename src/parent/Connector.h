#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include <atomic>
#include <functional>

namespace MessageRouter {

// How a failed connect is tried again; process-wide. 0 in a field keeps the built-in value.
struct ConnectRetrySettings {
  std::atomic<std::uint32_t> totalSeconds{0};  // for one address; 0 counts as 60
  std::atomic<std::uint32_t> retries{100};
  std::atomic<std::uint32_t> pauseMilliseconds{500};
  std::atomic<std::uint32_t> pauseRangePercent{0};
};
ConnectRetrySettings& ConnectRetry();

// Connects, with retries. Each try lasts at most 20 seconds; `stopping` is asked every 250
// milliseconds and ends it. Returns 0, or -1 with errno set.
int ConnectWithRetry(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address,
                     const std::function<bool()>& stopping);

}  // namespace MessageRouter
