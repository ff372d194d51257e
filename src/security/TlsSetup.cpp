#include "security/TlsSetup.h"

#include <openssl/obj_mac.h>
#include <openssl/x509v3.h>

#include <stdexcept>

#include "security/OpenSsl.h"
#include "security/Password.h"

namespace MessageRouter::TlsSetup {
namespace {

using SecurityCallback = int (*)(const SSL*, const SSL_CTX*, int, int, int, void*, void*);

// The strength that OpenSSL gives to an RSA key of 1024 bits.
constexpr int kWeakestStrength = 80;

SecurityCallback SystemSecurity() {
  static const SecurityCallback system = [] {
    const OpenSsl::SslContextPtr untouched(SSL_CTX_new(TLS_method()));
    if (!untouched) throw std::runtime_error("Cannot make a TLS context");
    return SSL_CTX_get_security_callback(untouched.get());
  }();
  return system;
}

int AdmitWeakCertificates(const SSL* ssl, const SSL_CTX* context, int operation, int bits, int nid,
                          void* other, void* extra) {
  switch (operation & ~SSL_SECOP_PEER) {
    case SSL_SECOP_EE_KEY:
    case SSL_SECOP_CA_KEY:
      if (bits >= kWeakestStrength) return 1;
      break;
    case SSL_SECOP_CA_MD:
      if (nid == NID_sha1) return 1;
      break;
    default:
      break;
  }
  return SystemSecurity()(ssl, context, operation, bits, nid, other, extra);
}

// Peers' certificates pass OpenSSL's own look at their strength unseen, all or none; so what is
// weaker than what the callback above admits is found here.
int WeaknessOf(X509* certificate) {
  if (certificate == nullptr) return X509_V_OK;
  EVP_PKEY* const key = X509_get0_pubkey(certificate);
  if (key == nullptr || EVP_PKEY_get_security_bits(key) < kWeakestStrength) {
    return X509_V_ERR_EE_KEY_TOO_SMALL;
  }
  // What an authority says of itself counts for nothing.
  if ((X509_get_extension_flags(certificate) & EXFLAG_SS) != 0) return X509_V_OK;
  int digest = NID_undef;
  int strength = 0;
  const bool known =
      X509_get_signature_info(certificate, &digest, nullptr, &strength, nullptr) == 1;
  const bool strong = known && (digest == NID_sha1 || strength >= kWeakestStrength);
  return strong ? X509_V_OK : X509_V_ERR_CA_MD_TOO_WEAK;
}

}  // namespace

int VerifyCallback(int verified, X509_STORE_CTX* chain) {
  if (verified == 1) {
    const int weakness = WeaknessOf(X509_STORE_CTX_get_current_cert(chain));
    if (weakness == X509_V_OK) return 1;
    X509_STORE_CTX_set_error(chain, weakness);
    return 0;
  }
  const bool ownExpired = X509_STORE_CTX_get_error_depth(chain) == 0 &&
                          X509_STORE_CTX_get_error(chain) == X509_V_ERR_CERT_HAS_EXPIRED;
  return ownExpired ? 1 : 0;
}

void Configure(SSL_CTX* context, X509* ca) {
  const OpenSsl::ErrorScope errors;
  SystemSecurity();  // fails here, if ever, rather than in a callback
  SSL_CTX_set_default_passwd_cb(context, &PasswordCallback);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &VerifyCallback);
  // A certificate is looked at again for every connection: it may have expired since the last one.
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_security_callback(context, &AdmitWeakCertificates);
  X509_VERIFY_PARAM_set_auth_level(SSL_CTX_get0_param(context), 0);
  if (X509_STORE_add_cert(SSL_CTX_get_cert_store(context), ca) != 1 ||
      SSL_CTX_add_client_CA(context, ca) != 1) {
    throw std::runtime_error("Failed to load CA certificate");
  }
}

Restriction RestrictProtocols(SSL_CTX* context) {
  constexpr std::uint64_t kOldProtocols =
      SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
  Restriction result;
  result.expected = SSL_CTX_get_options(context) | kOldProtocols;
  result.actual = SSL_CTX_set_options(context, kOldProtocols);
  return result;
}

}  // namespace MessageRouter::TlsSetup
