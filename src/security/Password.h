#pragma once

#include <string>

namespace MessageRouter {

// The pass phrase for keys in PEM form, the value of CertPassword; empty if none is set.
std::string CertificatePassword();

// OpenSSL's password callback: the pass phrase's length, or 0 if it does not fit or the buffer is
// unusable.
int PasswordCallback(char* buffer, int length, int forWriting, void* context);

}  // namespace MessageRouter
