#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include <chrono>
#include <functional>

#include "parent/Connector.h"

namespace MessageRouter {

// The steps of which a connect with retries is made; tests play the network.
class ConnectSteps {
 public:
  virtual ~ConnectSteps() = default;
  // Starts to connect. 0: connected; -1 with errno EINPROGRESS: under way; -1: failed.
  virtual int Begin(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) = 0;
  // Waits for one that is under way. 1: decided; 0: still under way; -1: failed.
  virtual int Wait(ACE_SOCK_Stream& stream, std::chrono::milliseconds time) = 0;
  // The outcome of one that is decided: 0, or -1 with errno set.
  virtual int Finish(ACE_SOCK_Stream& stream) = 0;
  virtual void Pause(std::chrono::milliseconds time) = 0;
};

inline constexpr std::chrono::seconds kOneTryLimit{20};
inline constexpr std::chrono::seconds kDefaultTotalLimit{60};
inline constexpr std::chrono::milliseconds kStopTestInterval{250};

// ConnectWithRetry over steps of one's own.
int ConnectInSteps(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address,
                   const ConnectRetrySettings& settings, const std::function<bool()>& stopping,
                   ConnectSteps& steps);

}  // namespace MessageRouter
