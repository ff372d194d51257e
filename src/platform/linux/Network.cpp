#include "platform/Network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace Platform {
namespace {

std::atomic<HostAddressSource> hostAddressSource{nullptr};
std::atomic<SocketAddressSource> peerAddressSource{nullptr};
std::atomic<const Resolver*> playedResolver{nullptr};

constexpr std::uint32_t kLoopbackNet = 127;
constexpr unsigned kNetShift = 24;
constexpr int kMillisecondsPerSecond = 1000;
constexpr unsigned kProbes = 4;
// What the system takes.
constexpr unsigned kMaxProbeSeconds = 32767;
constexpr unsigned kMaxTimeoutSeconds = std::numeric_limits<int>::max() / kMillisecondsPerSecond;
constexpr std::size_t kLargestAnswer = std::size_t{1024} * 1024;

std::vector<std::uint32_t> SystemAddresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    throw std::runtime_error("The network interfaces can't be listed: " +
                             std::generic_category().message(errno));
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  std::vector<std::uint32_t> found;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const bool usable = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
    if (!usable || entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    const std::uint32_t number = ntohl(address.sin_addr.s_addr);
    if (number >> kNetShift != kLoopbackNet) found.push_back(number);
  }
  return found;
}

using NameFunction = int (*)(int, sockaddr*, socklen_t*);

std::optional<SocketAddress> AddressOf(int socket, NameFunction name) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (name(socket, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return std::nullopt;
  if (storage.ss_family == AF_INET) {
    sockaddr_in address{};
    std::memcpy(&address, &storage, sizeof address);
    return SocketAddress{ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
  }
  sockaddr_in6 address{};
  std::memcpy(&address, &storage, sizeof address);
  if (storage.ss_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
    return std::nullopt;
  }
  constexpr std::size_t kMappedOffset = 12;
  std::uint32_t mapped = 0;
  std::memcpy(&mapped, address.sin6_addr.s6_addr + kMappedOffset, sizeof mapped);
  return SocketAddress{ntohl(mapped), ntohs(address.sin6_port)};
}

void SetOption(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof value);
}

// Runs a look-up of the netdb kind with as large a buffer as its answer needs.
std::optional<ResolvedHost> Resolve(
    const std::function<int(hostent*, char*, std::size_t, hostent**, int*)>& lookUp) {
  std::vector<char> buffer(1024);
  hostent entry{};
  hostent* found = nullptr;
  int hostError = 0;
  int result = 0;
  while ((result = lookUp(&entry, buffer.data(), buffer.size(), &found, &hostError)) == ERANGE &&
         buffer.size() < kLargestAnswer) {
    buffer.resize(buffer.size() * 2);
  }
  if (result != 0 || found == nullptr || found->h_addrtype != AF_INET) return std::nullopt;
  ResolvedHost host;
  if (found->h_name != nullptr) host.name = found->h_name;
  for (char** alias = found->h_aliases; alias != nullptr && *alias != nullptr; ++alias) {
    host.aliases.emplace_back(*alias);
  }
  for (char** bytes = found->h_addr_list; bytes != nullptr && *bytes != nullptr; ++bytes) {
    std::uint32_t address = 0;
    std::memcpy(&address, *bytes, sizeof address);
    host.addresses.push_back(ntohl(address));
  }
  return host;
}

}  // namespace

std::vector<std::uint32_t> HostAddresses() {
  const HostAddressSource source = hostAddressSource;
  return source != nullptr ? source() : SystemAddresses();
}

void SetHostAddressSource(HostAddressSource source) {
  hostAddressSource = source;
}

std::optional<SocketAddress> PeerAddress(int socket) {
  const SocketAddressSource source = peerAddressSource;
  return source != nullptr ? source(socket) : AddressOf(socket, &getpeername);
}

void SetPeerAddressSource(SocketAddressSource source) {
  peerAddressSource = source;
}

std::optional<SocketAddress> LocalAddress(int socket) {
  return AddressOf(socket, &getsockname);
}

std::string DottedAddress(std::uint32_t address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  const in_addr number{htonl(address)};
  inet_ntop(AF_INET, &number, text.data(), text.size());
  return text.data();
}

void KeepAlive(int socket, unsigned idleSeconds, unsigned timeoutSeconds) {
  SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, idleSeconds > 0 ? 1 : 0);
  if (idleSeconds > 0) {
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE,
              static_cast<int>(std::min(idleSeconds, kMaxProbeSeconds)));
  }
  if (timeoutSeconds == 0) return;
  // The limit is looked at when a probe is due, so probes must come more often than that.
  SetOption(socket, IPPROTO_TCP, TCP_KEEPINTVL,
            static_cast<int>(std::clamp(timeoutSeconds / kProbes, 1U, kMaxProbeSeconds)));
  SetOption(
      socket, IPPROTO_TCP, TCP_USER_TIMEOUT,
      static_cast<int>(std::min(timeoutSeconds, kMaxTimeoutSeconds)) * kMillisecondsPerSecond);
}

void SetResolver(const Resolver* resolver) {
  playedResolver = resolver;
}

std::optional<ResolvedHost> ResolveName(const std::string& name) {
  if (const Resolver* const played = playedResolver) return played->resolveName(name);
  return Resolve([&](hostent* entry, char* buffer, std::size_t size, hostent** found, int* error) {
    return gethostbyname2_r(name.c_str(), AF_INET, entry, buffer, size, found, error);
  });
}

std::optional<ResolvedHost> ResolveAddress(std::uint32_t address) {
  if (const Resolver* const played = playedResolver) return played->resolveAddress(address);
  const in_addr number{htonl(address)};
  return Resolve([&](hostent* entry, char* buffer, std::size_t size, hostent** found, int* error) {
    return gethostbyaddr_r(&number, sizeof number, AF_INET, entry, buffer, size, found, error);
  });
}

}  // namespace Platform
