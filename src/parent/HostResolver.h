#pragma once

#include <ace/INET_Addr.h>

#include <cstdint>
#include <functional>
#include <string>

namespace MessageRouter {

// Turns a host name or dotted address into an IPv4 endpoint. A host that is not known gives the
// address 0, with errno set.
using HostResolver = std::function<ACE_INET_Addr(const std::string& host, std::uint16_t port)>;

// Asks the system. May take as long as the system's name service does.
ACE_INET_Addr ResolveHost(const std::string& host, std::uint16_t port);

// Whether the host is a dotted address, which needs no name service.
bool IsDottedAddress(const std::string& host);

}  // namespace MessageRouter
