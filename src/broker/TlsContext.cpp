#include "broker/TlsContext.h"

#include "broker/ConnectionTable.h"

namespace Broker {

TlsContext::TlsContext(const Configure& configure, Info info)
    : configure_(configure), info_(info) {}

TlsContext* TlsContext::Register(const Configure& configure, Info info) {
  Discard();
  sslContext::full_peerdetails = true;
  auto* const context = new TlsContext(configure, info);
  sslContext::singleton = context;
  return context;
}

void TlsContext::Discard() {
  ConnectionTable::Instance().Watch(nullptr, nullptr);
  delete sslContext::singleton;
  sslContext::singleton = nullptr;
}

void TlsContext::RethrowFailure() const {
  if (failure_) std::rethrow_exception(failure_);
}

// After this the ORB sets verification and the information callback by its static members, so what
// was set in the context is carried over to these.
void TlsContext::set_CA() {
  SSL_CTX* const context = get_SSL_CTX();
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  try {
    if (configure_) configure_(context);
  } catch (...) {
    failure_ = std::current_exception();
  }
  const int mode = SSL_CTX_get_verify_mode(context);
  sslContext::verify_mode = mode == SSL_VERIFY_NONE ? SSL_VERIFY_PEER : mode;
  sslContext::verify_callback = SSL_CTX_get_verify_callback(context);
  ConnectionTable::Instance().Watch(context,
                                    info_ != nullptr ? info_ : SSL_CTX_get_info_callback(context));
  sslContext::info_callback = SSL_CTX_get_info_callback(context);
}

}  // namespace Broker
