#include "security/Celdane.h"

#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <stdexcept>

#include "security/OpenSsl.h"

namespace Celdane {
namespace {

void AddPart(X509_NAME* name, int nid, int type, const std::string& value) {
  if (value.empty()) return;
  // With a string type of its own rather than a form to choose one for, a name may be longer than
  // the 64 characters that X.520 asks for; routers with long names have always been served.
  if (X509_NAME_add_entry_by_NID(name, nid, type,
                                 reinterpret_cast<const unsigned char*>(value.data()),
                                 static_cast<int>(value.size()), -1, 0) != 1) {
    OpenSsl::Fail("Cannot add a part to the name");
  }
}

}  // namespace

void MemBuff::MemCpy(const void* data, std::size_t size) {
  const auto* const first = static_cast<const unsigned char*>(data);
  if (first == nullptr) {
    bytes_.clear();
  } else {
    bytes_.assign(first, first + size);
  }
}

const unsigned char* MemBuff::BuffPtr() const {
  return bytes_.empty() ? nullptr : bytes_.data();
}

std::size_t MemBuff::BuffSize() const {
  return bytes_.size();
}

RSAKey::RSAKey(EVP_PKEY* key) : key_(key, &EVP_PKEY_free) {
  if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
    throw std::runtime_error("The key is not an RSA key");
  }
}

EVP_PKEY* RSAKey::GetKey() const {
  return key_.get();
}

int RSAKey::GetRSAKeyBitSize() const {
  return EVP_PKEY_get_bits(key_.get());
}

RSAKeyGenerator::RSAKeyGenerator(int bits, void (*)(int, int, void*), const unsigned char*, int,
                                 unsigned long exponent)
    : bits_(bits), exponent_(exponent) {}

RSAKey* RSAKeyGenerator::GenerateKey() {
  const OpenSsl::ErrorScope errors;
  const OpenSsl::KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  const OpenSsl::NumberPtr exponent(BN_new());
  EVP_PKEY* key = nullptr;
  if (!context || !exponent || BN_set_word(exponent.get(), exponent_) != 1 ||
      EVP_PKEY_keygen_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits_) != 1 ||
      EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context.get(), exponent.get()) != 1 ||
      EVP_PKEY_generate(context.get(), &key) != 1) {
    OpenSsl::Fail("Cannot generate the key");
  }
  return new RSAKey(key);
}

void DistinguishedName::SetName(const std::string& commonName, const std::string& country,
                                const std::string& state, const std::string& locality,
                                const std::string& organisation, const std::string& unit) {
  const OpenSsl::ErrorScope errors;
  const std::shared_ptr<X509_NAME> name(X509_NAME_new(), &X509_NAME_free);
  if (!name) OpenSsl::Fail("Cannot make a name");
  AddPart(name.get(), NID_countryName, V_ASN1_PRINTABLESTRING, country);
  AddPart(name.get(), NID_stateOrProvinceName, V_ASN1_UTF8STRING, state);
  AddPart(name.get(), NID_localityName, V_ASN1_UTF8STRING, locality);
  AddPart(name.get(), NID_organizationName, V_ASN1_UTF8STRING, organisation);
  AddPart(name.get(), NID_organizationalUnitName, V_ASN1_UTF8STRING, unit);
  AddPart(name.get(), NID_commonName, V_ASN1_UTF8STRING, commonName);
  name_ = name;
}

X509_NAME* DistinguishedName::Get() const {
  return name_.get();
}

CertRequest::CertRequest(const RSAKey& key, const DistinguishedName& name, const EVP_MD* digest)
    : request_(X509_REQ_new(), &X509_REQ_free) {
  const OpenSsl::ErrorScope errors;
  if (!request_ || name.Get() == nullptr ||
      X509_REQ_set_version(request_.get(), X509_REQ_VERSION_1) != 1 ||
      X509_REQ_set_subject_name(request_.get(), name.Get()) != 1 ||
      X509_REQ_set_pubkey(request_.get(), key.GetKey()) != 1 ||
      X509_REQ_sign(request_.get(), key.GetKey(), digest) <= 0) {
    OpenSsl::Fail("Cannot make the certificate request");
  }
}

int CertRequest::GetDERCertRequest(MemBuff& buffer) const {
  const OpenSsl::ErrorScope errors;
  unsigned char* der = nullptr;
  const int length = i2d_X509_REQ(request_.get(), &der);
  if (length <= 0) return -1;
  buffer.MemCpy(der, static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return 0;
}

// OpenSSL works out what a certificate's extensions say when it first needs that. Done at once, no
// two threads that verify with the same one meet in it.
void Certificate::PrepareForSharing() const {
  const OpenSsl::ErrorScope errors;
  X509_check_purpose(certificate_.get(), -1, 0);
}

Certificate::Certificate(const MemBuff& der) {
  const OpenSsl::ErrorScope errors;
  const unsigned char* next = der.BuffPtr();
  certificate_.reset(
      next == nullptr ? nullptr : d2i_X509(nullptr, &next, static_cast<long>(der.BuffSize())),
      &X509_free);
  if (!certificate_) OpenSsl::Fail("Cannot decode the certificate");
  PrepareForSharing();
}

Certificate::Certificate(X509* certificate) : certificate_(certificate, &X509_free) {
  if (certificate == nullptr) throw std::runtime_error("There is no certificate");
  PrepareForSharing();
}

std::shared_ptr<X509> Certificate::GetX509() const {
  return certificate_;
}

std::string Certificate::GetHashingAlgorithm() const {
  const X509_ALGOR* const algorithm = X509_get0_tbs_sigalg(certificate_.get());
  char text[128] = "";
  OBJ_obj2txt(text, sizeof text, algorithm->algorithm, 0);
  return text;
}

}  // namespace Celdane
