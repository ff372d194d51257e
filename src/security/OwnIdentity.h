#pragma once

#include <string>

namespace MessageRouter::OwnIdentity {

// The router's own common name and its certificate as PEM text: its identity everywhere. Empty
// until the credentials are loaded. Both are copied out under a leaf lock.
std::string CommonName();
std::string CertificateText();
void Set(const std::string& commonName, const std::string& certificateText);

}  // namespace MessageRouter::OwnIdentity
