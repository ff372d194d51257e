#include "parent/Connector.h"

#include <ace/OS_NS_errno.h>
#include <ace/SOCK_Connector.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "parent/ConnectAttempt.h"
#include "parent/SocketWait.h"
#include "platform/Clock.h"
#include "platform/Process.h"

namespace MessageRouter {

namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyTime = Platform::Clock::SteadyTime;

Milliseconds Until(SteadyTime deadline) {
  return std::max(Milliseconds(0),
                  std::chrono::ceil<Milliseconds>(deadline - Platform::SteadyNow()));
}

// Closes the stream and leaves errno as it is, or as given.
int Fail(ACE_SOCK_Stream& stream, int error) {
  stream.close();
  errno = error;
  return -1;
}

class SystemConnectSteps : public ConnectSteps {
 public:
  int Begin(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) override {
    ACE_SOCK_Connector connector;
    const ACE_Time_Value noWait = ACE_Time_Value::zero;
    if (connector.connect(stream, address, &noWait) == 0) return 0;
    if (errno == EWOULDBLOCK) errno = EINPROGRESS;
    return -1;
  }

  int Wait(ACE_SOCK_Stream& stream, Milliseconds time) override {
    return WaitForSocket(stream.get_handle(), Readiness::Write, time);
  }

  int Finish(ACE_SOCK_Stream& stream) override {
    int error = 0;
    int length = sizeof error;
    if (stream.get_option(SOL_SOCKET, SO_ERROR, &error, &length) == -1) return -1;
    errno = error;
    // The caller expects a stream as ACE's own connector leaves it.
    return error == 0 ? stream.disable(ACE_NONBLOCK) : -1;
  }

  void Pause(Milliseconds time) override {
    Platform::SleepMilliseconds(static_cast<unsigned>(time.count()));
  }
};

class Retry {
 public:
  Retry(const ConnectRetrySettings& settings, const std::function<bool()>& stopping,
        ConnectSteps& steps)
      : settings_(settings), stopping_(stopping), steps_(steps) {
    const std::chrono::seconds total(settings.totalSeconds.load());
    deadline_ = Platform::SteadyNow() + (total.count() == 0 ? kDefaultTotalLimit : total);
  }

  int Connect(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
    for (std::uint32_t retriesLeft = settings_.retries;; --retriesLeft) {
      if (Stopping()) return Fail(stream, ECANCELED);
      if (Try(stream, address) == 0) return 0;
      const int error = errno;
      if (error == ECANCELED || retriesLeft == 0 || !PauseBeforeNext()) {
        return Fail(stream, error);
      }
    }
  }

 private:
  bool Stopping() const { return stopping_ && stopping_(); }

  int Try(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
    const SteadyTime tryEnds =
        std::min<SteadyTime>(deadline_, Platform::SteadyNow() + kOneTryLimit);
    if (steps_.Begin(stream, address) == 0) return 0;
    if (errno != EINPROGRESS) return Fail(stream, errno);
    for (;;) {
      const int decided = steps_.Wait(stream, std::min(kStopTestInterval, Until(tryEnds)));
      if (decided == -1) return Fail(stream, errno);
      if (decided == 1) return steps_.Finish(stream) == 0 ? 0 : Fail(stream, errno);
      if (Stopping()) return Fail(stream, ECANCELED);
      if (Platform::SteadyNow() >= tryEnds) return Fail(stream, ETIME);
    }
  }

  // False if there is no next try: the time is up, or the router stops.
  bool PauseBeforeNext() {
    const SteadyTime pauseEnds = Platform::SteadyNow() + PauseTime();
    if (pauseEnds >= deadline_) return false;
    while (Platform::SteadyNow() < pauseEnds) {
      if (Stopping()) return false;
      steps_.Pause(std::min(kStopTestInterval, Until(pauseEnds)));
    }
    return true;
  }

  // Varied by the percentage both ways, so that the children of one parent don't come in step.
  Milliseconds PauseTime() const {
    const std::int64_t pause = settings_.pauseMilliseconds;
    const std::int64_t range = pause * std::min(settings_.pauseRangePercent.load(), 100u) / 100;
    if (range == 0) return Milliseconds(pause);
    thread_local std::minstd_rand random{std::random_device{}()};
    return Milliseconds(pause + std::uniform_int_distribution<std::int64_t>(-range, range)(random));
  }

  const ConnectRetrySettings& settings_;
  const std::function<bool()>& stopping_;
  ConnectSteps& steps_;
  SteadyTime deadline_;
};

}  // namespace

ConnectRetrySettings& ConnectRetry() {
  static ConnectRetrySettings settings;
  return settings;
}

int ConnectInSteps(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address,
                   const ConnectRetrySettings& settings, const std::function<bool()>& stopping,
                   ConnectSteps& steps) {
  return Retry(settings, stopping, steps).Connect(stream, address);
}

int ConnectWithRetry(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address,
                     const std::function<bool()>& stopping) {
  SystemConnectSteps steps;
  return ConnectInSteps(stream, address, ConnectRetry(), stopping, steps);
}

}  // namespace MessageRouter
