#include "support/TestCertificates.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <map>
#include <mutex>
#include <stdexcept>

#include "security/OpenSsl.h"

namespace TestSupport {
namespace {

constexpr long kDay = 24L * 60 * 60;
constexpr int kCaBits = 2048;

using OpenSsl::BioPtr;
using OpenSsl::Deleter;
using OpenSsl::ObjectPtr;
using OpenSsl::X509Ptr;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<&X509_EXTENSION_free>>;
using OctetsPtr = std::unique_ptr<ASN1_OCTET_STRING, Deleter<&ASN1_OCTET_STRING_free>>;

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("test certificate: ") + what);
}

std::shared_ptr<EVP_PKEY> MakeKey(int bits) {
  std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(static_cast<std::size_t>(bits)), &EVP_PKEY_free);
  Require(key != nullptr, "key");
  return key;
}

std::shared_ptr<EVP_PKEY> KeptKey(const std::string& owner, int bits) {
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<EVP_PKEY>> keys;
  const std::lock_guard guard(mutex);
  auto& key = keys[owner];
  if (!key) key = MakeKey(bits);
  return key;
}

template <class Write>
std::string ToPem(Write&& write) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  Require(bio && write(bio.get()) == 1, "PEM");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::string CertificateToPem(X509* certificate) {
  return ToPem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

std::string KeyToPem(EVP_PKEY* key) {
  return ToPem([&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

void SetName(X509_NAME* name, const std::string& commonName) {
  Require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(commonName.data()),
                                     static_cast<int>(commonName.size()), -1, 0) == 1,
          "name");
}

void AddExtension(X509* certificate, const X509V3_CTX* context, int nid, const char* value) {
  const ExtensionPtr extension(
      X509V3_EXT_conf_nid(nullptr, const_cast<X509V3_CTX*>(context), nid, value));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

// A role is the presence of its extension; the value is an ASN.1 NULL.
void AddRole(X509* certificate, int role) {
  static const unsigned char kAsn1Null[] = {0x05, 0x00};
  const std::string oid = "2.39." + std::to_string(role);
  const ObjectPtr object(OBJ_txt2obj(oid.c_str(), 1));
  const OctetsPtr value(ASN1_OCTET_STRING_new());
  Require(object && value && ASN1_OCTET_STRING_set(value.get(), kAsn1Null, sizeof kAsn1Null) == 1,
          "role");
  const ExtensionPtr extension(X509_EXTENSION_create_by_OBJ(nullptr, object.get(), 0, value.get()));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "role");
}

X509Ptr MakeCertificate(const std::string& subject, const std::string& issuer, EVP_PKEY* key,
                        long notBefore, long notAfter) {
  X509Ptr certificate(X509_new());
  std::uint64_t serial = 0;
  Require(certificate && RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1,
          "allocation");
  Require(X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
              ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(certificate.get()), notBefore) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(certificate.get()), notAfter) != nullptr &&
              X509_set_pubkey(certificate.get(), key) == 1,
          "fields");
  SetName(X509_get_subject_name(certificate.get()), subject);
  SetName(X509_get_issuer_name(certificate.get()), issuer);
  return certificate;
}

}  // namespace

TestCa::TestCa(const std::string& commonName)
    : name_(commonName), key_(KeptKey("CA " + commonName, kCaBits)) {
  const X509Ptr certificate =
      MakeCertificate(name_, name_, key_.get(), -365 * kDay, 10 * 365 * kDay);
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate.get(), certificate.get(), nullptr, nullptr, 0);
  AddExtension(certificate.get(), &context, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate.get(), &context, NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(certificate.get(), &context, NID_subject_key_identifier, "hash");
  Require(X509_sign(certificate.get(), key_.get(), EVP_sha256()) > 0, "signature");
  caPem_ = CertificateToPem(certificate.get());
  caKeyPem_ = KeyToPem(key_.get());
}

Issued TestCa::Issue(const std::string& commonName, const std::vector<int>& roles,
                     const IssueOptions& options) {
  const EVP_MD* const digest = EVP_get_digestbyname(options.digest);
  Require(digest != nullptr, options.digest);
  const std::shared_ptr<EVP_PKEY> key =
      options.freshKey ? MakeKey(options.bits)
                       : KeptKey("leaf " + std::to_string(options.bits), options.bits);
  const long notAfter = options.seconds != 0 ? options.seconds : options.days * kDay;
  // It must begin before it ends, also where it has ended already.
  const long notBefore = (notAfter < 0 ? notAfter : 0) - kDay;
  const X509Ptr certificate = MakeCertificate(commonName, name_, key.get(), notBefore, notAfter);
  for (const int role : roles) AddRole(certificate.get(), role);
  Require(X509_sign(certificate.get(), key_.get(), digest) > 0, "signature");
  return {CertificateToPem(certificate.get()), KeyToPem(key.get())};
}

}  // namespace TestSupport
