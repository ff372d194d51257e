#include "broker/OrbFixes.h"

#include <ace/OS_NS_sys_socket.h>
#include <dlfcn.h>
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "broker/ConnectionTable.h"
#include "broker/OrbInternals.h"

// The library finds these functions through its procedure linkage table and its tables of virtual
// functions, where the program's definitions come first.
namespace {

using Broker::Connection;
using Broker::ConnectionTable;
using ThreadHelper::Guard;

enum class Ready { kYes, kTimedOut, kFailed };

// A zero deadline waits for ever.
template <class Wait>
Ready WaitUntil(const omni_time_t& deadline, Wait&& wait) {
  for (;;) {
    timeval left;
    if (omni::tcpSocket::setAndCheckTimeout(deadline, left)) return Ready::kTimedOut;
    errno = 0;
    const int result = wait(left);
    if (result > 0) return Ready::kYes;
    if (result == 0) return Ready::kTimedOut;
    // The socket has an error. What came before it may be the other end's orderly goodbye, after
    // which a caller just connects anew: it must be read first.
    if (errno == 0) return Ready::kYes;
    if (errno != EINTR) return Ready::kFailed;
  }
}

Ready WaitFor(int tlsError, int socket, const omni_time_t& deadline) {
  switch (tlsError) {
    case SSL_ERROR_WANT_READ:
      return WaitUntil(deadline,
                       [=](timeval& left) { return omni::tcpSocket::waitRead(socket, left); });
    case SSL_ERROR_WANT_WRITE:
      return WaitUntil(deadline,
                       [=](timeval& left) { return omni::tcpSocket::waitWrite(socket, left); });
    default:
      return Ready::kFailed;
  }
}

constexpr int kTimedOut = 0;
constexpr int kFailed = -1;

constexpr char kReleaseServer[] = "_ZN4omni10giopStrand13releaseServerEPNS_5IOP_SE";

using ReleaseFunction = void (*)(omni::giopStrand*, omni::IOP_S*);

// The file that a function was loaded from; null if that is not known.
const void* ImageOf(const void* function) {
  Dl_info info;
  return function != nullptr && ::dladdr(function, &info) != 0 ? info.dli_fbase : nullptr;
}

// The library's own.
template <class Function>
Function Original(const char* symbol) {
  void* const address = ::dlsym(RTLD_NEXT, symbol);
  if (address == nullptr) std::abort();
  return reinterpret_cast<Function>(address);
}

constexpr char kCreateReference[] = "_ZN4omni12createObjRefEPKcP7omniIORbP12omniIdentity";

using CreateFunction = omniObjRef* (*)(const char*, omniIOR*, CORBA::Boolean, omniIdentity*);

constexpr char kSend[] = "_ZN4omni13sslConnection4SendEPvmRK11omni_time_t";
constexpr char kReceive[] = "_ZN4omni13sslConnection4RecvEPvmRK11omni_time_t";
constexpr char kShutdown[] = "_ZN4omni13sslConnection8ShutdownEv";

}  // namespace

// The end of the ORB's work on one message of a connection. The library's own function never frees
// the record of one that still stands as waiting for its reply. Nothing will ever reply to it: that
// is how a request to cancel leaves it, and a request whose sender goes away while the rest of it
// is skipped. Peers could bring about both at will, some hundred bytes each time.
void omni::giopStrand::releaseServer(omni::IOP_S* record) {
  static const auto original = Original<ReleaseFunction>(kReleaseServer);
  auto* const request = static_cast<omni::GIOP_S*>(record);
  if (request->state() == IOP_S::WaitingForReply) request->state(IOP_S::ReplyCompleted);
  original(this, record);
}

// The making of a reference from what a peer or a text says of an object. The library never frees
// that where it turns out to be damaged, however long it is.
omniObjRef* omni::createObjRef(const char* target, omniIOR* ior, CORBA::Boolean locked,
                               omniIdentity* identity) {
  static const auto original = Original<CreateFunction>(kCreateReference);
  try {
    return original(target, ior, locked, identity);
  } catch (const CORBA::Exception&) {
    // Only the search for an identity throws, and it has not taken over what it was given.
    if (identity == nullptr) ior->release();
    throw;
  }
}

// The ORB reads and writes one TLS object on different threads at once, which OpenSSL forbids: a
// reader that meets the end of the connection sends an alert, out of the buffer that a writer is
// just giving back. Here each use of the TLS object happens under the connection's lock and never
// waits there; waiting happens outside of it.

int omni::sslConnection::Send(void* buffer, std::size_t size, const omni_time_t& deadline) {
  Connection* const connection = ConnectionTable::Of(pd_ssl);
  if (!pd_handshake_ok || connection == nullptr) return kFailed;
  const int count = static_cast<int>(std::min(size, orbParameters::maxSocketSend));
  for (;;) {
    int error = SSL_ERROR_NONE;
    {
      const Guard guard(connection->tlsMutex);
      if (!guard) return kFailed;
      setNonBlocking();
      ERR_clear_error();
      const int sent = SSL_write(pd_ssl, buffer, count);
      if (sent > 0) return sent;
      error = SSL_get_error(pd_ssl, sent);
    }
    const Ready ready = WaitFor(error, pd_socket, deadline);
    if (ready != Ready::kYes) return ready == Ready::kTimedOut ? kTimedOut : kFailed;
  }
}

int omni::sslConnection::Recv(void* buffer, std::size_t size, const omni_time_t& deadline) {
  Connection* const connection = ConnectionTable::Of(pd_ssl);
  if (!pd_handshake_ok || connection == nullptr) return kFailed;
  const int count = static_cast<int>(std::min(size, orbParameters::maxSocketRecv));
  // Mostly nothing has come yet, and asking OpenSSL first would be in vain.
  bool waitFirst = true;
  for (;;) {
    int error = SSL_ERROR_WANT_READ;
    {
      const Guard guard(connection->tlsMutex);
      if (!guard || pd_shutdown) return kFailed;
      setNonBlocking();
      if (!waitFirst || SSL_pending(pd_ssl) > 0) {
        ERR_clear_error();
        const int received = SSL_read(pd_ssl, buffer, count);
        if (received > 0) return received;
        error = SSL_get_error(pd_ssl, received);
      }
    }
    waitFirst = false;
    const Ready ready = WaitFor(error, pd_socket, deadline);
    if (ready != Ready::kYes) return ready == Ready::kTimedOut ? kTimedOut : kFailed;
  }
}

void omni::sslConnection::Shutdown() {
  Connection* const connection = ConnectionTable::Of(pd_ssl);
  if (connection == nullptr) return;
  const Guard guard(connection->tlsMutex);
  if (!guard) return;
  // No more is to be said: the other end is told by the socket.
  SSL_set_shutdown(pd_ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
  pd_shutdown = 1;
  ACE_OS::shutdown(pd_socket, ACE_SHUTDOWN_BOTH);
}

namespace Broker {

void ForgetHostAddresses() {
  auto* const addresses = const_cast<omnivector<const char*>*>(
      omni::giopTransportImpl::getInterfaceAddress("giop:tcp"));
  if (addresses == nullptr) return;
  for (const char* const address : *addresses) CORBA::string_free(const_cast<char*>(address));
  addresses->clear();
}

void RequireOrbFixes() {
  const void* const ours = ImageOf(reinterpret_cast<const void*>(&RequireOrbFixes));
  for (const char* const symbol : {kReleaseServer, kCreateReference, kSend, kReceive, kShutdown}) {
    if (ours == nullptr || ImageOf(::dlsym(RTLD_DEFAULT, symbol)) != ours) {
      throw std::runtime_error(std::string("A replaced function of the ORB is not in force: ") +
                               symbol);
    }
  }
}

}  // namespace Broker
