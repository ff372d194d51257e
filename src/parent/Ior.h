#pragma once

#include <ace/INET_Addr.h>

#include <string>
#include <vector>

namespace MessageRouter {

// Appends the endpoint of each IIOP profile. Throws std::invalid_argument for a malformed text.
void iiopAddressesInIOR(const std::string& ior, std::vector<ACE_INET_Addr>& addresses);

// True if the IOR parses and names no loopback address. Never throws.
bool validateIOR(const std::string& ior);

}  // namespace MessageRouter
