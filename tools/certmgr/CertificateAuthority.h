#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "security/Celdane.h"
#include "security/Roles.h"

namespace Certmgr {

// Seconds since 1970, UTC.
struct Validity {
  std::int64_t notBefore = 0;
  std::int64_t notAfter = 0;
};

struct Issued {
  Celdane::RSAKey key;
  Celdane::Certificate certificate;
};

// A certification authority in a folder: ca.pem, and ca.key with mode 0600.
// Failures are std::runtime_error.
class CertificateAuthority {
 public:
  // Makes the folder (mode 0700) if it is missing. Refuses where there is an authority already.
  static CertificateAuthority Create(const std::string& folder, const std::string& commonName,
                                     const Validity& validity, int bits);
  static CertificateAuthority Open(const std::string& folder);

  // A new key, and a certificate for it.
  Issued Issue(const std::string& commonName, const std::vector<MessageRouter::Role>& roles,
               const Validity& validity, int bits) const;

  const Celdane::Certificate& Own() const { return own_.certificate; }

 private:
  explicit CertificateAuthority(Issued own);

  Issued own_;
};

}  // namespace Certmgr
