#include "certmgr/CertificateAuthority.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/Files.h"
#include "security/OpenSsl.h"
#include "security/Password.h"

namespace Certmgr {
namespace {

using ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSsl::Deleter<&X509_EXTENSION_free>>;
using OctetsPtr = std::unique_ptr<ASN1_OCTET_STRING, OpenSsl::Deleter<&ASN1_OCTET_STRING_free>>;

constexpr char kCertificateFile[] = "/ca.pem";
constexpr char kKeyFile[] = "/ca.key";
constexpr unsigned kFolderMode = 0700;
constexpr unsigned kKeyMode = 0600;
constexpr unsigned kCertificateMode = 0644;
constexpr std::size_t kMaximumFileSize = 1024 * 1024;
constexpr int kSerialBits = 128;
constexpr unsigned long kExponent = 65537;

void Require(int error, const std::string& what) {
  if (error != 0) throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

std::string Read(const std::string& path) {
  int error = 0;
  std::optional<std::string> text = Platform::ReadFile(path, kMaximumFileSize, &error);
  if (!text) Require(error != 0 ? error : EIO, "cannot read " + path);
  return *std::move(text);
}

Celdane::RSAKey MakeKey(int bits) {
  const std::unique_ptr<Celdane::RSAKey> key(
      Celdane::RSAKeyGenerator(bits, nullptr, nullptr, 0, kExponent).GenerateKey());
  return *key;
}

Celdane::DistinguishedName NameOf(const std::string& commonName) {
  Celdane::DistinguishedName name;
  name.SetName(commonName, "", "", "", "", "");
  return name;
}

OpenSsl::X509Ptr Draft(const std::string& subject, X509_NAME* issuer, EVP_PKEY* key,
                       const Validity& validity) {
  OpenSsl::X509Ptr draft(X509_new());
  const OpenSsl::NumberPtr serial(BN_new());
  if (!draft || !serial || X509_set_version(draft.get(), X509_VERSION_3) != 1 ||
      BN_rand(serial.get(), kSerialBits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
      BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(draft.get())) == nullptr ||
      ASN1_TIME_set(X509_getm_notBefore(draft.get()), validity.notBefore) == nullptr ||
      ASN1_TIME_set(X509_getm_notAfter(draft.get()), validity.notAfter) == nullptr ||
      X509_set_subject_name(draft.get(), NameOf(subject).Get()) != 1 ||
      X509_set_issuer_name(draft.get(), issuer) != 1 || X509_set_pubkey(draft.get(), key) != 1) {
    OpenSsl::Fail("cannot fill in the certificate");
  }
  return draft;
}

void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
    OpenSsl::Fail("cannot add an extension to the certificate");
  }
}

void AddRole(X509* certificate, MessageRouter::Role role) {
  const unsigned char der[] = {0x06, 0x02, 0x77, static_cast<unsigned char>(role)};
  const unsigned char asn1Null[] = {0x05, 0x00};
  const unsigned char* next = der;
  const OpenSsl::ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &next, sizeof der));
  const OctetsPtr value(ASN1_OCTET_STRING_new());
  if (!object || !value || ASN1_OCTET_STRING_set(value.get(), asn1Null, sizeof asn1Null) != 1) {
    OpenSsl::Fail("cannot make a role");
  }
  constexpr int kNotCritical = 0;
  const ExtensionPtr extension(
      X509_EXTENSION_create_by_OBJ(nullptr, object.get(), kNotCritical, value.get()));
  if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
    OpenSsl::Fail("cannot add a role to the certificate");
  }
}

void Sign(X509* certificate, EVP_PKEY* key) {
  if (X509_sign(certificate, key, EVP_sha256()) <= 0) {
    OpenSsl::Fail("cannot sign the certificate");
  }
}

std::string KeyAsText(EVP_PKEY* key) {
  const OpenSsl::BioPtr stream = OpenSsl::MemoryStream();
  if (!stream || PEM_write_bio_PKCS8PrivateKey(stream.get(), key, nullptr, nullptr, 0, nullptr,
                                               nullptr) != 1) {
    OpenSsl::Fail("cannot write the private key");
  }
  return OpenSsl::TextOf(stream.get());
}

}  // namespace

CertificateAuthority::CertificateAuthority(Issued own) : own_(std::move(own)) {}

CertificateAuthority CertificateAuthority::Create(const std::string& folder,
                                                  const std::string& commonName,
                                                  const Validity& validity, int bits) {
  const OpenSsl::ErrorScope errors;
  for (const char* const file : {kCertificateFile, kKeyFile}) {
    if (Platform::FileExists(folder + file)) {
      throw std::runtime_error(folder + file + " exists already");
    }
  }
  Celdane::RSAKey key = MakeKey(bits);
  OpenSsl::X509Ptr draft = Draft(commonName, NameOf(commonName).Get(), key.GetKey(), validity);
  AddExtension(draft.get(), draft.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(draft.get(), draft.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(draft.get(), draft.get(), NID_subject_key_identifier, "hash");
  Sign(draft.get(), key.GetKey());

  if (!Platform::FileExists(folder)) {
    const std::size_t slash = folder.find_last_not_of('/') == std::string::npos
                                  ? std::string::npos
                                  : folder.rfind('/', folder.find_last_not_of('/'));
    if (slash != std::string::npos) {
      const std::string parent = folder.substr(0, slash);
      Require(Platform::MakeFolders(parent), "cannot make the folder " + parent);
    }
    Require(Platform::MakeFolder(folder, kFolderMode), "cannot make the folder " + folder);
  }
  Require(Platform::ReplaceFile(folder + kKeyFile, KeyAsText(key.GetKey()), kKeyMode),
          "cannot write " + folder + kKeyFile);
  Require(Platform::ReplaceFile(folder + kCertificateFile,
                                MessageRouter::CertificateAsText(draft.get()), kCertificateMode),
          "cannot write " + folder + kCertificateFile);
  return CertificateAuthority(Issued{std::move(key), Celdane::Certificate(draft.release())});
}

CertificateAuthority CertificateAuthority::Open(const std::string& folder) {
  const OpenSsl::ErrorScope errors;
  const std::string certificateText = Read(folder + kCertificateFile);
  const OpenSsl::BioPtr certificateStream = OpenSsl::ReadFrom(certificateText);
  OpenSsl::X509Ptr certificate(PEM_read_bio_X509(certificateStream.get(), nullptr,
                                                 &MessageRouter::PasswordCallback, nullptr));
  if (!certificate) OpenSsl::Fail("cannot read " + folder + kCertificateFile);
  const std::string keyText = Read(folder + kKeyFile);
  const OpenSsl::BioPtr keyStream = OpenSsl::ReadFrom(keyText);
  OpenSsl::KeyPtr key(
      PEM_read_bio_PrivateKey(keyStream.get(), nullptr, &MessageRouter::PasswordCallback, nullptr));
  if (!key) OpenSsl::Fail("cannot read " + folder + kKeyFile);
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    throw std::runtime_error(folder + kKeyFile + " is not the key of " + folder + kCertificateFile);
  }
  return CertificateAuthority(
      Issued{Celdane::RSAKey(key.release()), Celdane::Certificate(certificate.release())});
}

Issued CertificateAuthority::Issue(const std::string& commonName,
                                   const std::vector<MessageRouter::Role>& roles,
                                   const Validity& validity, int bits) const {
  const OpenSsl::ErrorScope errors;
  X509* const ca = own_.certificate.GetX509().get();
  Celdane::RSAKey key = MakeKey(bits);
  OpenSsl::X509Ptr draft = Draft(commonName, X509_get_subject_name(ca), key.GetKey(), validity);
  AddExtension(draft.get(), ca, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(draft.get(), ca, NID_key_usage, "critical,digitalSignature,keyEncipherment");
  AddExtension(draft.get(), ca, NID_ext_key_usage, "serverAuth,clientAuth");
  AddExtension(draft.get(), ca, NID_subject_key_identifier, "hash");
  AddExtension(draft.get(), ca, NID_authority_key_identifier, "keyid");
  for (const MessageRouter::Role role : roles) AddRole(draft.get(), role);
  Sign(draft.get(), own_.key.GetKey());
  return Issued{std::move(key), Celdane::Certificate(draft.release())};
}

}  // namespace Certmgr
