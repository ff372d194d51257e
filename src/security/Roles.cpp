#include "security/Roles.h"

#include <openssl/objects.h>
#include <openssl/pem.h>

#include <stdexcept>

#include "security/OpenSsl.h"
#include "security/Password.h"

namespace MessageRouter {
namespace {

OpenSsl::X509Ptr ReadPem(const std::string& pem) {
  if (pem.empty()) return nullptr;
  const OpenSsl::BioPtr stream = OpenSsl::ReadFrom(pem);
  if (!stream) return nullptr;
  return OpenSsl::X509Ptr(PEM_read_bio_X509(stream.get(), nullptr, &PasswordCallback, nullptr));
}

bool HasRole(const std::string& pem, Role role) {
  const OpenSsl::ErrorScope errors;
  const OpenSsl::X509Ptr certificate = ReadPem(pem);
  return certificate && HasRole(certificate.get(), role);
}

}  // namespace

bool HasRole(X509* certificate, Role role) {
  const OpenSsl::ErrorScope errors;
  const unsigned char der[] = {0x06, 0x02, 0x77, static_cast<unsigned char>(role)};
  const unsigned char* next = der;
  const OpenSsl::ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &next, sizeof der));
  return object && X509_get_ext_by_OBJ(certificate, object.get(), -1) != -1;
}

bool HasCertificationManagerRole(const Celdane::Certificate& certificate) {
  return HasRole(certificate.GetX509().get(), Role::CertificationManager);
}

bool HasCertificationManagerRole(const std::string& pem) {
  return HasRole(pem, Role::CertificationManager);
}

bool HasRouterRole(const Celdane::Certificate& certificate) {
  return HasRole(certificate.GetX509().get(), Role::Router);
}

bool HasRouterRole(const std::string& pem) {
  return HasRole(pem, Role::Router);
}

bool HasManagementRole(const Celdane::Certificate& certificate) {
  return HasRole(certificate.GetX509().get(), Role::Management);
}

bool HasManagementRole(const std::string& pem) {
  return HasRole(pem, Role::Management);
}

bool HasFifthRole(const Celdane::Certificate& certificate) {
  return HasRole(certificate.GetX509().get(), Role::Fifth);
}

bool HasFifthRole(const std::string& pem) {
  return HasRole(pem, Role::Fifth);
}

std::string CertificateAsText(X509* certificate) {
  const OpenSsl::ErrorScope errors;
  const OpenSsl::BioPtr stream = OpenSsl::MemoryStream();
  if (!stream || certificate == nullptr || PEM_write_bio_X509(stream.get(), certificate) != 1) {
    return {};
  }
  return OpenSsl::TextOf(stream.get());
}

std::string CommonNameOf(X509* certificate) {
  char buffer[512];
  const int length = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName,
                                               buffer, sizeof buffer);
  // A name with a NUL in it would be another name wherever C strings carry it on.
  const std::string name(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
  if (name.empty() || name.find('\0') != std::string::npos) {
    throw std::runtime_error("No common name in certificate");
  }
  return name;
}

}  // namespace MessageRouter
