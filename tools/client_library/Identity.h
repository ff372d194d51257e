#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace ClientLibrary {

// Who a program is towards a router: a certificate with its key, and the authority that it trusts.
class Identity {
 public:
  // Whom the TLS context accepts at the other end.
  enum class Peers : unsigned char {
    // A certificate of our authority with the router role: nobody else answers our calls, and
    // nobody else can push envelopes at us.
    RoutersOnly,
    // A certificate of our authority. For programs that stand in for a router.
    AnyOfOurs,
  };

  // Reads ca.pem, certificate.pem and key.pem. Throws Failure.
  static Identity FromFolder(const std::string& folder);
  // Reads ca.pem alone: a caller with no certificate.
  static Identity Anonymous(const std::string& folder);

  // Empty for an anonymous caller.
  const std::string& CommonName() const { return commonName_; }
  bool IsAnonymous() const { return certificate_ == nullptr; }

  // Fills the TLS context of an ORB. Throws Failure.
  void Apply(SSL_CTX* context, Peers peers = Peers::RoutersOnly) const;

 private:
  Identity() = default;

  std::shared_ptr<X509> authority_;
  std::shared_ptr<X509> certificate_;
  std::shared_ptr<EVP_PKEY> key_;
  std::string commonName_;
};

}  // namespace ClientLibrary
