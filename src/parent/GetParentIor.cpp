// The fetch of the parent's IOR text.
#include "config/Configuration.h"
#include "parent/Connector.h"
#include "parent/ParentLogon.h"
#include "parent/ParentSearch.h"
#include "security/CertificateContext.h"

namespace MessageRouter {
namespace {

// Tells the health report, where there is one, and the certificate context.
class SearchReport : public ParentSearchObserver {
 public:
  explicit SearchReport(StatusReporting::StatusReporter* reporter) : reporter_(reporter) {}

  void NameNotResolved(const std::string& host) override {
    if (reporter_) reporter_->Dns().addFailedAddress(host);
  }
  void ListUsedUp() override {
    if (reporter_) reporter_->Dns().Update();
  }
  void Unreachable(const std::string& host) override {
    if (!reporter_) return;
    reporter_->SetActualParent("");
    reporter_->Outgoing().Raise(StatusReporting::OutgoingSection::kParentUnreachable, host);
  }
  void Found(const std::string& host, std::uint32_t address) override {
    if (reporter_) {
      reporter_->SetActualParent(host);
      reporter_->Outgoing().Clear(StatusReporting::OutgoingSection::kParentUnreachable);
      reporter_->Dns().Reset();
    }
    CertificateContext::instance().SetParentAddress(address);
  }

 private:
  StatusReporting::StatusReporter* const reporter_;
};

}  // namespace

std::string ParentLogon::GetParentIOR(const Surroundings& surroundings) {
  const std::string hosts = GetConfigString("ParentAddress", "", 4096);
  const auto port = static_cast<std::uint16_t>(GetConfigInt("ParentPort", 8192));
  SearchReport report(surroundings.reporter);
  ParentSearch search(
      report, ResolveHost,
      [&surroundings](ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
        return ConnectWithRetry(stream, address, surroundings.stopping);
      },
      surroundings.stopping);
  return search.Run(hosts, port, GetConfigInt("GetIORTimeoutSec", 10));
}

}  // namespace MessageRouter
