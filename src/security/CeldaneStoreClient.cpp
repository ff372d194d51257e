#include "security/CeldaneStoreClient.h"

#include <openssl/x509_vfy.h>

#include <ctime>
#include <exception>
#include <stdexcept>

#include "config/DataLocation.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "security/FileStore.h"
#include "security/OpenSsl.h"
#include "security/Password.h"

namespace CeldaneStoreClient {
namespace {

using TrustPtr = std::unique_ptr<X509_STORE, OpenSsl::Deleter<&X509_STORE_free>>;
using CheckPtr = std::unique_ptr<X509_STORE_CTX, OpenSsl::Deleter<&X509_STORE_CTX_free>>;

class Crypto : public ICrypto {
 public:
  void VerifyCertificate(IStore& store, const Celdane::Certificate& certificate) override {
    const OpenSsl::ErrorScope errors;
    const std::unique_ptr<Celdane::Certificate> ca = store.GetCACertificate();
    if (!ca) throw std::runtime_error("No CA certificate in certificate store");
    const TrustPtr trust(X509_STORE_new());
    const CheckPtr check(X509_STORE_CTX_new());
    if (!trust || !check || X509_STORE_add_cert(trust.get(), ca->GetX509().get()) != 1 ||
        X509_STORE_CTX_init(check.get(), trust.get(), certificate.GetX509().get(), nullptr) != 1) {
      OpenSsl::Fail("Cannot verify the certificate");
    }
    X509_VERIFY_PARAM* const parameters = X509_STORE_CTX_get0_param(check.get());
    X509_VERIFY_PARAM_set_time(parameters,
                               static_cast<std::time_t>(Platform::Clock::Instance().WallSeconds()));
    // Weak keys and digests are the regeneration checker's business: they are replaced in time, not
    // refused here.
    X509_VERIFY_PARAM_set_auth_level(parameters, 0);
    if (X509_verify_cert(check.get()) != 1) {
      throw std::runtime_error(
          X509_verify_cert_error_string(X509_STORE_CTX_get_error(check.get())));
    }
  }
};

}  // namespace

std::unique_ptr<IStore> CCeldaneStoreClient::GetStore(const std::string&,
                                                      const std::string& privateLocation) {
  const std::string folder =
      privateLocation.empty()
          ? MessageRouter::RouterDirectory(MessageRouter::RouterName()) + "/Private"
          : privateLocation;
  auto store = std::make_unique<FileStore>(folder, &MessageRouter::CertificatePassword);
  try {
    store->Open();
  } catch (const std::exception& exception) {
    MessageRouter::LogCaughtException("CCeldaneStoreClient::GetStore", exception, nullptr);
    return nullptr;
  }
  return store;
}

std::unique_ptr<ICrypto> CCeldaneStoreClient::GetCryptoIf() {
  return std::make_unique<Crypto>();
}

}  // namespace CeldaneStoreClient
