#pragma once

#include <memory>
#include <string>

#include "security/Celdane.h"

// The certificate store: a folder of PEM files, ca.pem, certificate.pem and key.pem.
namespace CeldaneStoreClient {

class IStore {
 public:
  virtual ~IStore() = default;
  // What is stored stands beside what is in force until Commit puts it in its place, the key first.
  // Each throws std::runtime_error on failure.
  virtual void StorePrivateKey(const Celdane::RSAKey& key) = 0;
  // Null if the store has none; std::exception if it has one that can't be read.
  virtual std::unique_ptr<Celdane::RSAKey> GetPrivateKey() = 0;
  virtual std::unique_ptr<Celdane::Certificate> GetCACertificate() = 0;
  virtual void StoreCertificate(const Celdane::Certificate& certificate) = 0;
  virtual std::unique_ptr<Celdane::Certificate> GetCertificate() = 0;
  // No crash leaves a certificate with another key.
  virtual void Commit() = 0;
};

class ICrypto {
 public:
  virtual ~ICrypto() = default;
  // Throws std::runtime_error unless the certificate verifies against the store's CA.
  virtual void VerifyCertificate(IStore& store, const Celdane::Certificate& certificate) = 0;
};

class CCeldaneStoreClient {
 public:
  // `privateLocation` is the folder given on the command line; if it is empty the store stands in
  // "<router directory>/Private/". `storeLocation` is the section that names the store on platforms
  // with a registry. Null if the folder can't be opened or made. A pair that a crash left half
  // stored is completed or dropped as a whole here.
  static std::unique_ptr<IStore> GetStore(const std::string& storeLocation,
                                          const std::string& privateLocation);
  static std::unique_ptr<ICrypto> GetCryptoIf();
};

}  // namespace CeldaneStoreClient
