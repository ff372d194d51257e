// Peers that refuse the router's certificate.
#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "config/Configuration.h"
#include "core/Router.h"
#include "lone_router.h"
#include "parent/ParentLogon.h"
#include "platform/Network.h"
#include "status/StatusReporter.h"

namespace MessageRouter {
namespace {

// The reference of a parent at 10.0.0.1: byte order, no type, one IIOP 1.2 profile.
constexpr char kParentIor[] =
    "IOR:010000000100000000000000"
    "01000000"
    "00000000"
    "1c000000"
    "01010200"
    "09000000"
    "31302e302e302e3100"
    "00"
    "0100"
    "0000000000000000";

// Keeps which peers it is told of.
class PeerListener : public StatusReporting::StatusReporter {
 public:
  explicit PeerListener(std::vector<std::uint32_t>& peers)
      : StatusReporter("unused"), certification_(peers) {}
  StatusReporting::CertificationSection& Certification() override { return certification_; }

 private:
  struct Section : StatusReporting::CertificationSection {
    explicit Section(std::vector<std::uint32_t>& peers) : peers_(peers) {}
    void ReportPeer(std::uint32_t address) override { peers_.push_back(address); }
    std::vector<std::uint32_t>& peers_;
  };

  Section certification_;
};

class RouterWithParent : public LoneRouter {
 protected:
  RouterWithParent() {
    SetConfigString("ParentAddress", "parent.example");
    Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000002}; });
    RunRouter();  // fails for want of a certificate, and knows by then that there is a parent
    Router::instance().SetParentAddresses(kParentIor);
    Router::instance().SetStatusReporter(std::make_unique<PeerListener>(peers_));
  }
  std::size_t Complaints() const {
    return Count(LogText(),
                 "The certificate of this router is incompatible with the server, please "
                 "reinstall Orvane\n");
  }
  static constexpr std::uint32_t kParent = 0x0A000001;
  std::vector<std::uint32_t> peers_;
};

TEST_F(RouterWithParent, IsToldIncompatibleAtTheSixthAlertOfItsParentAndAgainAtTheSeventh) {
  for (int i = 0; i < 5; ++i) Router::instance().ReportInvalidCertificate(kParent);
  EXPECT_EQ(Complaints(), 0u);
  EXPECT_TRUE(peers_.empty());
  Router::instance().ReportInvalidCertificate(kParent);
  EXPECT_EQ(Complaints(), 1u);
  Router::instance().ReportInvalidCertificate(kParent);
  EXPECT_EQ(Complaints(), 2u);
  EXPECT_EQ(peers_, std::vector<std::uint32_t>(2, kParent));
}

TEST_F(RouterWithParent, DoesNotCountAlertsOfOthers) {
  for (int i = 0; i < 7; ++i) Router::instance().ReportInvalidCertificate(kParent + 1);
  EXPECT_EQ(Router::instance().InvalidCertificateCount(), 0);
}

TEST_F(RouterWithParent, CountsNothingWhenItsParentsAddressesCannotBeRead) {
  Router::instance().SetParentAddresses("IOR:zz");
  Router::instance().ReportInvalidCertificate(kParent);
  EXPECT_EQ(peers_, std::vector<std::uint32_t>{kParent});
  EXPECT_EQ(Router::instance().InvalidCertificateCount(), 0);
  EXPECT_EQ(Count(LogText(), "from iiopAddressesInIOR"), 1u);
}

TEST_F(LoneRouter, WithoutAParentCountsNoAlerts) {
  for (int i = 0; i < 7; ++i) Router::instance().ReportInvalidCertificate(0x0A000001);
  EXPECT_EQ(Router::instance().InvalidCertificateCount(), 0);
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Takes connections at a port of the system's choice, and answers nothing.
class Listener {
 public:
  Listener() {
    EXPECT_EQ(acceptor_.open(address_), 0);
    EXPECT_EQ(acceptor_.get_local_addr(address_), 0);
  }
  ~Listener() { acceptor_.close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::uint16_t Port() const { return address_.get_port_number(); }

 private:
  ACE_SOCK_Acceptor acceptor_;
  ACE_INET_Addr address_{static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_ANY)};
};

// A router that asks for its parent's reference and gets no answer. It does so only where others
// can reach it, and the ORB keeps the first address of the process: for a process of its own.
class RouterThatAsksForItsParent : public CertifiedRouter {
 public:
  RouterThatAsksForItsParent() {
    SetConfigString("ParentAddress", "127.0.0.1");
    SetConfigInt("ParentPort", silent_.Port());
    SetConfigInt("GetIORTimeoutSec", 3600);
    arguments_[2] = "giop:ssl:0.0.0.0:";
    argv_[2] = arguments_[2].data();
  }
  void TestBody() override {
    // A stop in the middle of a registration sets it.
    std::atomic<bool>& stopped = ParentLogon::TheEscalation().registerResetTried;
    Router::Surroundings surroundings;
    surroundings.sleep = [&](unsigned) {
      EXPECT_TRUE(Eventually([&] { return Count(LogText(), "Getting parent router IOR") > 0; }));
      Router::instance().SetParentAddresses(kParentIor);
      for (int i = 0; i < 6; ++i) Router::instance().ReportInvalidCertificate(0x0A000001);
      EXPECT_TRUE(Eventually([&] { return stopped.load(); }));
      Router::instance().Shutdown();
    };
    Router::instance().SetSurroundings(surroundings);
    EXPECT_EQ(RunRouter(), 0);
    if (HasFailure()) std::cerr << LogText();
  }

 private:
  const Listener silent_;
};

bool OthersCanReachThisHost() {
  const std::vector<std::uint32_t> addresses = Platform::HostAddresses();
  return std::any_of(addresses.begin(), addresses.end(),
                     [](std::uint32_t address) { return address >> 24 != 127; });
}

TEST(RefusedCertificateDeathTest, EndsTheWayToTheParentAtTheSixthAlert) {
  if (!OthersCanReachThisHost()) GTEST_SKIP() << "no address but the host's own";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        RouterThatAsksForItsParent().TestBody();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace MessageRouter
