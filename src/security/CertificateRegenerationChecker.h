#pragma once

#include <memory>
#include <string>

namespace Orvane {

// Decides whether a certificate that is still valid must be replaced.
class ICertificateRegenerationChecker {
 public:
  virtual ~ICertificateRegenerationChecker() = default;
  virtual bool IsNewCertificateRequired(int keyBits, const std::string& hashingAlgorithm) = 0;
  virtual bool IsItTimeToRefreshCertificate() = 0;
  virtual bool GetServerSupportsSHA() = 0;
  virtual bool SetServerSupportsSHA(bool value) = 0;
  virtual void Persist() = 0;
  virtual bool SetInitialized(bool value) = 0;
};

// The router's checker.
std::unique_ptr<ICertificateRegenerationChecker> MakeCertificateRegenerationChecker();

}  // namespace Orvane
