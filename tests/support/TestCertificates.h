#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

// Certificates made on the spot, for tests that need TLS or a certificate store.
namespace TestSupport {

struct Issued {
  std::string certificatePem;
  std::string keyPem;
};

struct IssueOptions {
  int days = 30;                  // from now; negative: it ended so many days ago
  int seconds = 0;                // not 0: the lifetime from now in seconds instead of days
  int bits = 2048;                // of the RSA key
  const char* digest = "SHA256";  // of the signature
  bool freshKey = false;          // false: all certificates of one key size share one key
};

// A certification authority of its own. Two with different names have different keys and don't
// trust each other.
// Keys are kept for the life of the process, because making one takes long.
// Threads: any for Issue and CaPem.
class TestCa {
 public:
  explicit TestCa(const std::string& commonName = "Test CA");

  // `roles` are the last arcs of the role extensions 2.39.n: 0 certification manager, 1 router,
  // 2 management. Throws std::runtime_error if OpenSSL refuses.
  Issued Issue(const std::string& commonName, const std::vector<int>& roles,
               const IssueOptions& options = {});

  const std::string& CaPem() const { return caPem_; }
  const std::string& CaKeyPem() const { return caKeyPem_; }

 private:
  std::string name_;
  std::shared_ptr<EVP_PKEY> key_;
  std::string caPem_;
  std::string caKeyPem_;
};

}  // namespace TestSupport
