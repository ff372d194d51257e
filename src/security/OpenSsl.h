#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

// Ownership of OpenSSL's objects, and order in its error queue.
namespace OpenSsl {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* object) const {
    Free(object);
  }
};

using BioPtr = std::unique_ptr<BIO, Deleter<&BIO_free_all>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<&EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<&EVP_PKEY_CTX_free>>;
using NumberPtr = std::unique_ptr<BIGNUM, Deleter<&BN_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<&ASN1_OBJECT_free>>;
using TimePtr = std::unique_ptr<ASN1_TIME, Deleter<&ASN1_TIME_free>>;
using SslContextPtr = std::unique_ptr<SSL_CTX, Deleter<&SSL_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<&X509_free>>;

// What OpenSSL reports while the object lives leaves no trace in the thread's error queue: the next
// TLS operation on the thread would take it for its own failure.
class ErrorScope {
 public:
  ErrorScope();
  ~ErrorScope();
  ErrorScope(const ErrorScope&) = delete;
  ErrorScope& operator=(const ErrorScope&) = delete;
};

// "what: reason", with the reason of the thread's last failure, or just "what" if there is none.
std::string FailureText(const std::string& what);
// Throws std::runtime_error with that text.
[[noreturn]] void Fail(const std::string& what);

// A stream that reads the text, which must outlive it. Null on failure.
BioPtr ReadFrom(const std::string& text);
BioPtr MemoryStream();
std::string TextOf(BIO* memoryStream);

}  // namespace OpenSsl
