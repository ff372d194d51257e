#pragma once

#include <ace/INET_Addr.h>

#include <string>
#include <vector>

namespace ACEHelpers {

// A host's IPv4 addresses, without 127.0.0.0/8, in ascending order. Two sets are equal when they
// have the same elements.
class IPAddressSet {
 public:
  bool IsEmpty() const { return addresses_.empty(); }
  const std::vector<ACE_INET_Addr>& Addresses() const { return addresses_; }
  bool operator==(const IPAddressSet& other) const { return addresses_ == other.addresses_; }

  void Add(const ACE_INET_Addr& address);
  // Takes the loopback addresses out and sorts.
  void Normalise();
  // The addresses joined by blanks.
  std::string Text() const;

 private:
  std::vector<ACE_INET_Addr> addresses_;
};

// Fills the set with the present addresses of the host. A host that refuses to list them counts as
// one that has none.
void InitialiseWithHost(IPAddressSet& set);

}  // namespace ACEHelpers
