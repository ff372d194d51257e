#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "parent/HostResolver.h"

namespace MessageRouter {

// Names that one IOR may ask the name service for; each can take as long as that service does.
inline constexpr std::size_t kMaxNamesInIor = 32;

// iiopAddressesInIOR with a resolver of one's own. Throws std::invalid_argument, and nothing else
// for whatever text, as long as the resolver throws nothing.
void ReadIiopAddresses(const std::string& ior, const HostResolver& resolve,
                       std::vector<ACE_INET_Addr>& addresses);

// validateIOR with a resolver of one's own.
bool ValidateIor(const std::string& ior, const HostResolver& resolve);

}  // namespace MessageRouter
