#include "client_library/Identity.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstring>

#include "client_library/Failure.h"
#include "platform/Files.h"
#include "security/Roles.h"

namespace ClientLibrary {

namespace {

constexpr std::size_t kMaxPemSize = 1024 * 1024;

// An encrypted key must not make the program ask on the terminal.
int NoPassword(char*, int, int, void*) {
  return -1;
}

std::shared_ptr<BIO> OpenPem(const std::string& path) {
  int error = 0;
  const auto text = Platform::ReadFile(path, kMaxPemSize, &error);
  if (!text) throw Failure(Outcome::Failed, "cannot read " + path + ": " + std::strerror(error));
  std::shared_ptr<BIO> bio(BIO_new(BIO_s_mem()), &BIO_free);
  if (bio == nullptr || BIO_write(bio.get(), text->data(), static_cast<int>(text->size())) !=
                            static_cast<int>(text->size())) {
    throw Failure(Outcome::Failed, "cannot read " + path);
  }
  return bio;
}

std::shared_ptr<X509> ReadCertificate(const std::string& path) {
  const auto bio = OpenPem(path);
  std::shared_ptr<X509> certificate(PEM_read_bio_X509(bio.get(), nullptr, &NoPassword, nullptr),
                                    &X509_free);
  ERR_clear_error();
  if (certificate == nullptr) throw Failure(Outcome::Failed, path + " holds no certificate");
  return certificate;
}

std::shared_ptr<EVP_PKEY> ReadKey(const std::string& path) {
  const auto bio = OpenPem(path);
  std::shared_ptr<EVP_PKEY> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, &NoPassword, nullptr),
                                &EVP_PKEY_free);
  ERR_clear_error();
  if (key == nullptr) throw Failure(Outcome::Failed, path + " holds no key that can be read");
  return key;
}

int RouterOrNobody(int preverified, X509_STORE_CTX* store) {
  if (preverified != 1 || X509_STORE_CTX_get_error_depth(store) != 0) return preverified;
  X509* peer = X509_STORE_CTX_get_current_cert(store);
  if (MessageRouter::HasRole(peer, MessageRouter::Role::Router)) return 1;
  X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
  return 0;
}

}  // namespace

Identity Identity::FromFolder(const std::string& folder) {
  Identity identity = Anonymous(folder);
  identity.certificate_ = ReadCertificate(folder + "/certificate.pem");
  identity.key_ = ReadKey(folder + "/key.pem");
  if (X509_check_private_key(identity.certificate_.get(), identity.key_.get()) != 1) {
    ERR_clear_error();
    throw Failure(Outcome::Failed, "certificate and key in " + folder + " do not belong together");
  }
  try {
    identity.commonName_ = MessageRouter::CommonNameOf(identity.certificate_.get());
  } catch (const std::runtime_error& error) {
    throw Failure(Outcome::Failed, folder + "/certificate.pem: " + error.what());
  }
  return identity;
}

Identity Identity::Anonymous(const std::string& folder) {
  Identity identity;
  identity.authority_ = ReadCertificate(folder + "/ca.pem");
  return identity;
}

void Identity::Apply(SSL_CTX* context, Peers peers) const {
  const auto must = [](bool done, const char* what) {
    if (done) return;
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    ERR_clear_error();
    throw Failure(Outcome::Failed, std::string("cannot use the ") + what + ": " + reason);
  };
  must(X509_STORE_add_cert(SSL_CTX_get_cert_store(context), authority_.get()) == 1,
       "authority's certificate");
  must(SSL_CTX_add_client_CA(context, authority_.get()) == 1, "authority's certificate");
  if (certificate_ != nullptr) {
    must(SSL_CTX_use_certificate(context, certificate_.get()) == 1, "certificate");
    must(SSL_CTX_use_PrivateKey(context, key_.get()) == 1, "key");
  }
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                     peers == Peers::RoutersOnly ? &RouterOrNobody : nullptr);
}

}  // namespace ClientLibrary
