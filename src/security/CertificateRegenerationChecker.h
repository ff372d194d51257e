#pragma once

#include <memory>
#include <string>

namespace Orvane {

// Decides whether a certificate that is still valid must be replaced.
// Threads: any.
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

// The router's checker. In this version no certificate is replaced before it expires: both
// questions are always answered with false, Persist does nothing, and the flags are kept for the
// life of the process only.
std::unique_ptr<ICertificateRegenerationChecker> MakeCertificateRegenerationChecker();

}  // namespace Orvane
