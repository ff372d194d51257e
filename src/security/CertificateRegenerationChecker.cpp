#include "security/CertificateRegenerationChecker.h"

#include <atomic>

namespace Orvane {
namespace {

class CertificateRegenerationChecker : public ICertificateRegenerationChecker {
 public:
  bool IsNewCertificateRequired(int, const std::string&) override { return false; }
  bool IsItTimeToRefreshCertificate() override { return false; }
  bool GetServerSupportsSHA() override { return serverSupportsSha_; }
  bool SetServerSupportsSHA(bool value) override { return serverSupportsSha_ = value; }
  void Persist() override {}
  bool SetInitialized(bool value) override { return initialized_ = value; }

 private:
  std::atomic<bool> serverSupportsSha_{false};
  std::atomic<bool> initialized_{false};
};

}  // namespace

std::unique_ptr<ICertificateRegenerationChecker> MakeCertificateRegenerationChecker() {
  return std::make_unique<CertificateRegenerationChecker>();
}

}  // namespace Orvane
