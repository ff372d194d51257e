#include "platform/Network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "platform/linux/Descriptor.h"

namespace Platform {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;

TEST(HostAddresses, ContainNoLoopback) {
  for (const std::uint32_t address : HostAddresses()) EXPECT_NE(address >> 24, 127u);
}

TEST(HostAddresses, ComeFromTheSourceThatATestGives) {
  SetHostAddressSource([] { return std::vector<std::uint32_t>{1, 2}; });
  EXPECT_EQ(HostAddresses(), (std::vector<std::uint32_t>{1, 2}));
  SetHostAddressSource([]() -> std::vector<std::uint32_t> { throw std::runtime_error("refused"); });
  EXPECT_THROW(HostAddresses(), std::runtime_error);
  SetHostAddressSource(nullptr);
}

TEST(DottedAddress, ShowsTheHighestByteFirst) {
  EXPECT_EQ(DottedAddress(0xC0000201), "192.0.2.1");
  EXPECT_EQ(DottedAddress(0), "0.0.0.0");
  EXPECT_EQ(DottedAddress(0xFFFFFFFF), "255.255.255.255");
}

// A connection over the loopback of one family.
class Connection {
 public:
  explicit Connection(int family)
      : listener_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)),
        client_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 address6{};
    address6.sin6_family = AF_INET6;
    address6.sin6_addr = in6addr_any;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bound =
        family == AF_INET6
            ? bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address6), sizeof address6) == 0
            : bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (!bound || listen(listener_.Get(), 1) != 0) return;
    sockaddr_in6 name{};
    socklen_t length = sizeof name;
    getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&name), &length);
    port_ = ntohs(name.sin6_port);  // at the same place in both families
    address.sin_port = name.sin6_port;
    if (connect(client_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
    server_ = Descriptor(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  bool IsOpen() const { return static_cast<bool>(server_); }
  int Client() const { return client_.Get(); }
  int Server() const { return server_.Get(); }
  std::uint16_t Port() const { return port_; }

 private:
  Descriptor listener_;
  Descriptor client_;
  Descriptor server_;
  std::uint16_t port_ = 0;
};

TEST(SocketAddresses, AreThoseOfBothEnds) {
  const Connection connection(AF_INET);
  ASSERT_TRUE(connection.IsOpen());
  const auto peer = PeerAddress(connection.Client());
  ASSERT_TRUE(peer.has_value());
  EXPECT_EQ(peer->address, kLoopback);
  EXPECT_EQ(peer->port, connection.Port());
  const auto local = LocalAddress(connection.Client());
  const auto seen = PeerAddress(connection.Server());
  ASSERT_TRUE(local && seen);
  EXPECT_EQ(local->port, seen->port);
}

TEST(SocketAddresses, OfAMappedAddressAreIpv4) {
  const Connection connection(AF_INET6);
  if (!connection.IsOpen()) GTEST_SKIP() << "no IPv6 on this host";
  const auto peer = PeerAddress(connection.Server());
  ASSERT_TRUE(peer.has_value());
  EXPECT_EQ(peer->address, kLoopback);
}

TEST(SocketAddresses, OfWhatIsNoConnectedSocketAreNothing) {
  EXPECT_EQ(PeerAddress(-1).has_value(), false);
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(PeerAddress(open.Get()).has_value());
  const Descriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(LocalAddress(other.Get()).has_value());
}

int Option(int socket, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(socket, level, option, &value, &length);
  return value;
}

TEST(KeepAlive, ProbesAfterTheIdleTimeAndBreaksAfterTheTimeout) {
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  KeepAlive(open.Get(), 60, 120);
  EXPECT_EQ(Option(open.Get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 120000);
  EXPECT_LT(Option(open.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 60);
}

TEST(KeepAlive, OfIdleTimeZeroSendsNoProbes) {
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  KeepAlive(open.Get(), 60, 120);
  KeepAlive(open.Get(), 0, 120);
  EXPECT_EQ(Option(open.Get(), SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 120000);
}

TEST(KeepAlive, OfValuesBeyondTheSystemsUsesTheSystemsLargest) {
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  KeepAlive(open.Get(), 0xFFFFFFFF, 0xFFFFFFFF);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_KEEPIDLE), 32767);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 32767);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 2147483000);
}

TEST(KeepAlive, ProbesOfAShortTimeoutComeEachSecond) {
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  KeepAlive(open.Get(), 1, 3);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 1);
}

TEST(KeepAlive, OfTimeoutZeroLeavesTheSystemsLimit) {
  const Descriptor open(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int interval = Option(open.Get(), IPPROTO_TCP, TCP_KEEPINTVL);
  KeepAlive(open.Get(), 60, 0);
  EXPECT_EQ(Option(open.Get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
  EXPECT_EQ(Option(open.Get(), IPPROTO_TCP, TCP_KEEPINTVL), interval);
}

TEST(Resolving, OfLocalhostGivesTheLoopback) {
  const auto host = ResolveName("localhost");
  ASSERT_TRUE(host.has_value());
  EXPECT_FALSE(host->name.empty());
  EXPECT_NE(std::find(host->addresses.begin(), host->addresses.end(), kLoopback),
            host->addresses.end());
}

TEST(Resolving, OfADottedAddressGivesItself) {
  const auto host = ResolveName("192.0.2.1");
  ASSERT_TRUE(host.has_value());
  EXPECT_EQ(host->addresses, std::vector<std::uint32_t>{0xC0000201});
}

TEST(Resolving, OfTheLoopbackGivesAName) {
  const auto host = ResolveAddress(kLoopback);
  ASSERT_TRUE(host.has_value());
  EXPECT_FALSE(host->name.empty());
}

TEST(Resolving, OfWhatIsNoNameGivesNothing) {
  EXPECT_FALSE(ResolveName("no name at all").has_value());
  EXPECT_FALSE(ResolveName("").has_value());
}

}  // namespace
}  // namespace Platform
