#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "parent/HostResolver.h"

namespace MessageRouter {

// What the search for the parent tells the rest of the router.
class ParentSearchObserver {
 public:
  virtual ~ParentSearchObserver() = default;
  virtual void NameNotResolved(const std::string& host) = 0;
  virtual void ListUsedUp() = 0;
  virtual void Unreachable(const std::string& host) = 0;
  // The search is over; `address` in host byte order.
  virtual void Found(const std::string& host, std::uint32_t address) = 0;
};

// Longer texts than this are no IOR.
inline constexpr std::size_t kMaxIorText = std::size_t{64} * 1024;
// However a parent dribbles, its text must have come within this time, or within the limit of one
// receive if that is longer.
inline constexpr std::chrono::seconds kWholeReplyLimit{600};

// Fetches the IOR text from the first address of a list that answers with any.
// Threads: one at a time.
class ParentSearch {
 public:
  using Connect = std::function<int(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address)>;

  // `stopping` may be null; once it is true the search ends soon, with nothing.
  ParentSearch(ParentSearchObserver& observer, HostResolver resolve, Connect connect,
               std::function<bool()> stopping);

  // `hosts` is separated by commas, blanks included. `receiveSeconds` limits each receive. Empty if
  // nobody answered. Text that came before a time-out counts as an answer.
  std::string Run(const std::string& hosts, std::uint16_t port, std::uint32_t receiveSeconds);

 private:
  bool Stopping() const { return stopping_ && stopping_(); }
  std::string Fetch(const std::string& host, const ACE_INET_Addr& address,
                    std::uint32_t receiveSeconds);
  // What the peer sends until it closes. `failed` if an error cut it short.
  std::string Receive(ACE_SOCK_Stream& stream, std::uint32_t receiveSeconds, bool& failed);

  ParentSearchObserver& observer_;
  const HostResolver resolve_;
  const Connect connect_;
  const std::function<bool()> stopping_;
};

}  // namespace MessageRouter
