#pragma once

#include <openssl/ssl.h>

#include <cstdint>

// How a TLS context of this process is set up, whoever made it.
namespace MessageRouter::TlsSetup {

// OpenSSL's verify callback. Of a chain, only the peer's own certificate may be expired: its bearer
// is told so by the calls that it makes. Certificates that are too weak for Configure are refused.
int VerifyCallback(int verified, X509_STORE_CTX* chain);

// Password and verify callbacks, no resumption of sessions, and the trusted certification
// authority. Peers may show no certificate at all: what they may call then is decided call by call.
// Certificates with RSA keys from 1024 bits and with SHA-1 signatures are admitted, since their
// bearers must get through to have them replaced; everything else stays at the system's security
// level.
// Throws std::runtime_error "Failed to load CA certificate".
void Configure(SSL_CTX* context, X509* ca);

// The result of switching old protocols off.
struct Restriction {
  std::uint64_t expected = 0;
  std::uint64_t actual = 0;
};
// Leaves TLS 1.2 and later.
Restriction RestrictProtocols(SSL_CTX* context);

}  // namespace MessageRouter::TlsSetup
