#pragma once

#include <openssl/x509.h>

#include <string>

#include "security/Celdane.h"

// A certificate's role is the presence of the extension with the role's object identifier, 2.39.n.
// The forms on PEM text are false for a text that does not read.
namespace MessageRouter {

enum class Role : unsigned char {
  CertificationManager = 0,
  Router = 1,
  Management = 2,
  Fourth = 3,
  Fifth = 4,
};

bool HasRole(X509* certificate, Role role);

bool HasCertificationManagerRole(const Celdane::Certificate& certificate);
bool HasCertificationManagerRole(const std::string& pem);
bool HasRouterRole(const Celdane::Certificate& certificate);
bool HasRouterRole(const std::string& pem);
bool HasManagementRole(const Celdane::Certificate& certificate);
bool HasManagementRole(const std::string& pem);
bool HasFifthRole(const Celdane::Certificate& certificate);
bool HasFifthRole(const std::string& pem);

// PEM text of a certificate; empty on failure.
std::string CertificateAsText(X509* certificate);
// Throws std::runtime_error "No common name in certificate".
std::string CommonNameOf(X509* certificate);

}  // namespace MessageRouter
