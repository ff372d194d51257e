#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Facts about the host's network and about single sockets. Addresses are IPv4 in host byte order.
namespace Platform {

// The host's IPv4 addresses on interfaces that are up and running. Throws std::runtime_error if
// the system refuses; empty if there are none. Replaceable for tests (see SetHostAddressSource).
std::vector<std::uint32_t> HostAddresses();
using HostAddressSource = std::vector<std::uint32_t> (*)();
void SetHostAddressSource(HostAddressSource source);  // null: the system

struct SocketAddress {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};
// Of a connected socket. Nothing if the system does not tell, or the address is not IPv4 (an
// IPv4-mapped IPv6 address counts as IPv4).
std::optional<SocketAddress> PeerAddress(int socket);
std::optional<SocketAddress> LocalAddress(int socket);
// Replaceable for tests, which can play a peer of an address that the machine lacks.
using SocketAddressSource = std::optional<SocketAddress> (*)(int socket);
void SetPeerAddressSource(SocketAddressSource source);  // null: the system

// "192.0.2.1"
std::string DottedAddress(std::uint32_t address);

// How a TCP connection finds out that the other end has vanished. Probes begin when nothing has
// come for `idleSeconds` (0: none are sent). What was sent, a probe or data, must be acknowledged
// within `timeoutSeconds`, or the connection is broken (0: the system's own limits). Values above
// what the system takes count as its largest.
void KeepAlive(int socket, unsigned idleSeconds, unsigned timeoutSeconds);

struct ResolvedHost {
  std::string name;
  std::vector<std::string> aliases;
  std::vector<std::uint32_t> addresses;
};
std::optional<ResolvedHost> ResolveName(const std::string& name);
std::optional<ResolvedHost> ResolveAddress(std::uint32_t address);
// Both replaceable for tests; null: the system's. The object must outlive its use.
struct Resolver {
  std::optional<ResolvedHost> (*resolveName)(const std::string& name);
  std::optional<ResolvedHost> (*resolveAddress)(std::uint32_t address);
};
void SetResolver(const Resolver* resolver);

}  // namespace Platform
