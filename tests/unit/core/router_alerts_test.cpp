// Peers that refuse the router's certificate.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "config/Configuration.h"
#include "core/Router.h"
#include "lone_router.h"
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

}  // namespace
}  // namespace MessageRouter
