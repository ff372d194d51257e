#include "parent/ParentSearch.h"

#include <ace/OS_NS_errno.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <utility>

#include "logging/Log.h"
#include "parent/SocketWait.h"
#include "platform/Clock.h"

namespace MessageRouter {

namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyTime = Platform::Clock::SteadyTime;

constexpr Milliseconds kStopTest{250};

// Waits until something can be read: 0, or -1 with errno set (ETIME, ECANCELED).
int AwaitInput(ACE_HANDLE socket, SteadyTime deadline, const std::function<bool()>& stopping) {
  for (;;) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Platform::SteadyNow());
    const int ready =
        WaitForSocket(socket, Readiness::Read, std::clamp(left, Milliseconds(0), kStopTest));
    if (ready != 0) return ready == 1 ? 0 : -1;
    errno = stopping && stopping() ? ECANCELED : ETIME;
    if (errno == ECANCELED || left <= kStopTest) return -1;
  }
}

}  // namespace

ParentSearch::ParentSearch(ParentSearchObserver& observer, HostResolver resolve, Connect connect,
                           std::function<bool()> stopping)
    : observer_(observer),
      resolve_(std::move(resolve)),
      connect_(std::move(connect)),
      stopping_(std::move(stopping)) {}

std::string ParentSearch::Run(const std::string& hosts, std::uint16_t port,
                              std::uint32_t receiveSeconds) {
  std::istringstream list(hosts);
  for (std::string host; std::getline(list, host, ',');) {
    if (Stopping()) return {};
    LogInfo("Getting parent router IOR from %s:%d\n", host.c_str(), port);
    const ACE_INET_Addr address = resolve_(host, port);
    if (address.get_ip_address() == 0) {
      LogSystemError(kLogWarning, "Parent address unknown", errno);
      observer_.NameNotResolved(host);
      continue;
    }
    std::string ior = Fetch(host, address, receiveSeconds);
    if (!ior.empty()) {
      observer_.Found(host, address.get_ip_address());
      return ior;
    }
  }
  if (!Stopping()) observer_.ListUsedUp();
  return {};
}

std::string ParentSearch::Fetch(const std::string& host, const ACE_INET_Addr& address,
                                std::uint32_t receiveSeconds) {
  // What the router's own stop cuts short says nothing about the parent.
  const auto report = [this, &host](const char* text) {
    LogSystemError(kLogDebug, text, errno);
    if (!Stopping()) observer_.Unreachable(host);
  };
  ACE_SOCK_Stream stream;
  std::string ior;
  if (connect_(stream, address) == -1) {
    report("Connect failed");
  } else if (stream.enable(ACE_NONBLOCK) == -1) {
    LogSystemError(kLogDebug, "Enable ACE_NONBLOCK failed", errno);
  } else {
    bool failed = false;
    ior = Receive(stream, receiveSeconds, failed);
    if (failed) {
      ior.clear();
      report("Recvv failed");
    }
  }
  stream.close();
  return ior;
}

std::string ParentSearch::Receive(ACE_SOCK_Stream& stream, std::uint32_t receiveSeconds,
                                  bool& failed) {
  const std::chrono::seconds limit(receiveSeconds);
  const SteadyTime allOfIt = Platform::SteadyNow() + std::max(limit, kWholeReplyLimit);
  std::string text;
  for (;;) {
    ssize_t length = AwaitInput(stream.get_handle(),
                                std::min(allOfIt, Platform::SteadyNow() + limit), stopping_);
    if (length == 0) {
      char part[4096];
      length = stream.recv(part, sizeof part);
      if (length == 0) return text;
      if (length > 0) text.append(part, static_cast<std::size_t>(length));
    }
    if (length == -1 && (errno == EWOULDBLOCK || errno == EINTR)) continue;
    if (length == -1 && errno == ETIME) {
      LogDebug("Recvv timed out");
      return text;
    }
    if (text.size() > kMaxIorText) errno = EMSGSIZE;
    failed = length == -1 || text.size() > kMaxIorText;
    if (failed) return {};
  }
}

}  // namespace MessageRouter
