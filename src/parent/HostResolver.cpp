#include "parent/HostResolver.h"

#include <ace/OS_NS_arpa_inet.h>

#include <cerrno>

#include "platform/Network.h"

namespace MessageRouter {

namespace {

bool ParseDotted(const std::string& host, in_addr& address) {
  // A NUL inside the text would hide what follows it.
  return host.find('\0') == std::string::npos && ACE_OS::inet_aton(host.c_str(), &address) != 0;
}

ACE_INET_Addr Endpoint(std::uint32_t address, std::uint16_t port) {
  return ACE_INET_Addr(port, static_cast<ACE_UINT32>(address));
}

}  // namespace

bool IsDottedAddress(const std::string& host) {
  in_addr address;
  return ParseDotted(host, address);
}

ACE_INET_Addr ResolveHost(const std::string& host, std::uint16_t port) {
  in_addr dotted;
  if (ParseDotted(host, dotted)) return Endpoint(ACE_NTOHL(dotted.s_addr), port);
  errno = 0;
  if (!host.empty() && host.find('\0') == std::string::npos) {
    const auto found = Platform::ResolveName(host);
    if (found && !found->addresses.empty()) return Endpoint(found->addresses.front(), port);
  }
  if (errno == 0) errno = EADDRNOTAVAIL;
  return Endpoint(0, port);
}

}  // namespace MessageRouter
