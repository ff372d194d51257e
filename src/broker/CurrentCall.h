#pragma once

#include <omniORB4/CORBA.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

// The remote call that the calling thread is serving, and the hook that sees every call before it
// reaches a servant.
namespace Broker {

// Valid from the interceptor until the operation returns. Nothing in it may be kept.
struct Call {
  const char* operation = "";
  bool tls = false;             // false: the request came without TLS
  X509* certificate = nullptr;  // the peer's; null if it showed none
  SSL* ssl = nullptr;           // null without a certificate and without TLS
  int socket = -1;              // of the connection; -1 if unknown
  std::string peerAddress;      // the ORB's text for it
  const CORBA::Octet* objectKey = nullptr;
  std::size_t objectKeySize = 0;
};

// The call that this thread is serving; null outside of one.
const Call* CurrentCall();

// Sees every incoming request, those for the ORB's own operations ("_is_a" ...) over TLS excepted.
// Threads: any number at once.
class RequestHook {
 public:
  virtual ~RequestHook() = default;
  // Throws a CORBA exception to refuse the call. The caller gets it as it is, even a user exception
  // that the operation does not declare: a caller whose ORB keeps to the declaration shows UNKNOWN.
  virtual void OnRequest(const Call& call) = 0;
};

// The hook stays the caller's and must outlive its use; null for none. Calls that are under way go
// on with the old one: replace it while no ORB runs.
void SetRequestHook(RequestHook* hook);

// Whether the object key begins with the id of an adapter.
bool KeyIsOfAdapter(const Call& call, const std::vector<CORBA::Octet>& adapterId);

// For tests of servants: what CurrentCall gives on this thread while the object lives.
class ScopedCall {
 public:
  explicit ScopedCall(const Call& call);
  ~ScopedCall();

 private:
  Call call_;
  const Call* previous_;
};

}  // namespace Broker
