#include "security/Password.h"

#include <cstring>
#include <exception>

#include "config/Configuration.h"

namespace MessageRouter {

std::string CertificatePassword() {
  constexpr std::size_t kMaximum = 4096;
  return GetConfigString("CertPassword", "", kMaximum);
}

int PasswordCallback(char* buffer, int length, int, void*) {
  if (buffer == nullptr || length < 1) return 0;
  try {
    const std::string password = CertificatePassword();
    if (password.size() > static_cast<std::size_t>(length) - 1) return 0;
    std::strncpy(buffer, password.c_str(), static_cast<std::size_t>(length));
    return static_cast<int>(password.size());
  } catch (const std::exception&) {
    // No exception may pass through OpenSSL; without a pass phrase the reading fails and says so.
    return 0;
  }
}

}  // namespace MessageRouter
