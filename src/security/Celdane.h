#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

// The certificate toolkit: keys, names, requests and certificates on OpenSSL.
// Failures are std::runtime_error.
namespace Celdane {

class MemBuff {
 public:
  void MemCpy(const void* data, std::size_t size);
  const unsigned char* BuffPtr() const;  // null while empty
  std::size_t BuffSize() const;

 private:
  std::vector<unsigned char> bytes_;
};

class RSAKey {
 public:
  // Takes ownership; a key of another kind is refused.
  explicit RSAKey(EVP_PKEY* key);
  EVP_PKEY* GetKey() const;  // stays this object's
  int GetRSAKeyBitSize() const;

 private:
  std::shared_ptr<EVP_PKEY> key_;
};

class RSAKeyGenerator {
 public:
  // Callback and seed are accepted for the interface's sake; the system's generator seeds itself.
  RSAKeyGenerator(int bits, void (*callback)(int, int, void*), const unsigned char* seed,
                  int seedLength, unsigned long exponent);
  // The caller owns the key.
  RSAKey* GenerateKey();

 private:
  int bits_;
  unsigned long exponent_;
};

class DistinguishedName {
 public:
  // Empty parts are left out.
  void SetName(const std::string& commonName, const std::string& country, const std::string& state,
               const std::string& locality, const std::string& organisation,
               const std::string& unit);
  X509_NAME* Get() const;  // stays this object's

 private:
  std::shared_ptr<X509_NAME> name_;
};

class CertRequest {
 public:
  CertRequest(const RSAKey& key, const DistinguishedName& name, const EVP_MD* digest);
  // 0 on success.
  int GetDERCertRequest(MemBuff& buffer) const;

 private:
  std::shared_ptr<X509_REQ> request_;
};

class Certificate {
 public:
  // From DER.
  explicit Certificate(const MemBuff& der);
  // Takes ownership.
  explicit Certificate(X509* certificate);

  std::shared_ptr<X509> GetX509() const;
  // The signature algorithm's name, such as "sha256WithRSAEncryption".
  std::string GetHashingAlgorithm() const;

 private:
  void PrepareForSharing() const;

  std::shared_ptr<X509> certificate_;
};

}  // namespace Celdane
