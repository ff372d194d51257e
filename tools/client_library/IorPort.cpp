#include "client_library/IorPort.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "client_library/Failure.h"
#include "platform/Clock.h"
#include "platform/Network.h"

namespace ClientLibrary {

namespace {

class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds limit)
      : end_(Platform::Clock::Instance().SteadyNow() + limit) {}

  // What is left, at least a moment, so that ACE does not take it for a poll.
  ACE_Time_Value Left() const {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        end_ - Platform::Clock::Instance().SteadyNow());
    return ACE_Time_Value(std::max(left, std::chrono::microseconds(1)));
  }
  bool Passed() const { return Platform::Clock::Instance().SteadyNow() >= end_; }

 private:
  Platform::Clock::SteadyTime end_;
};

// The stream closes with the object, whatever is thrown.
struct Stream : ACE_SOCK_Stream {
  ~Stream() { close(); }
};

// 0 and the whole text, or the system's error.
int ReadAll(std::uint32_t address, std::uint16_t port, const Deadline& deadline,
            std::string& text) {
  Stream stream;
  ACE_SOCK_Connector connector;
  ACE_Time_Value left = deadline.Left();
  if (connector.connect(stream, ACE_INET_Addr(port, address), &left) != 0) {
    return errno == ETIME ? ETIMEDOUT : errno;
  }
  char buffer[4096];
  for (;;) {
    left = deadline.Left();
    const ssize_t size = stream.recv(buffer, sizeof buffer, &left);
    if (size == 0) return 0;
    if (size < 0) return errno == ETIME ? ETIMEDOUT : errno;
    text.append(buffer, static_cast<std::size_t>(size));
    if (text.size() > kMaxIorLength) return EMSGSIZE;
    // A peer that sends a byte now and then must not hold us up for ever.
    if (deadline.Passed()) return ETIMEDOUT;
  }
}

}  // namespace

bool LooksLikeIor(const std::string& text) {
  if (text.size() < 6 || text.size() % 2 != 0 || text.compare(0, 4, "IOR:") != 0) return false;
  return std::all_of(text.begin() + 4, text.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; });
}

std::string FetchIor(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit) {
  const std::string where = host + ":" + std::to_string(port);
  const Deadline deadline(limit);
  const auto resolved = Platform::ResolveName(host);
  if (!resolved || resolved->addresses.empty()) {
    throw Failure(Outcome::Failed, "cannot resolve the host name " + host);
  }
  int error = 0;
  for (const std::uint32_t address : resolved->addresses) {
    std::string text;
    error = ReadAll(address, port, deadline, text);
    if (error == 0 && LooksLikeIor(text)) return text;
    if (error == 0) {
      throw Failure(Outcome::Failed, text.empty() ? where + " closed the connection at once"
                                                  : where + " sent no object reference");
    }
    if (error == EMSGSIZE) throw Failure(Outcome::Failed, where + " sent no object reference");
    if (deadline.Passed()) error = ETIMEDOUT;
  }
  if (error == ETIMEDOUT) {
    throw Failure(Outcome::TimedOut, "no object reference from " + where + " in time");
  }
  throw Failure(Outcome::Failed, "cannot reach a router at " + where + ": " + std::strerror(error));
}

}  // namespace ClientLibrary
