#pragma once

#include "broker/OrbInternals.h"

#include <exception>
#include <functional>

namespace Broker {

// The TLS context of one ORB: registered before the ORB is made, which fills it in the making and
// destroys it in the end.
// What `configure` leaves open is set here: peers are asked for a certificate and may have none; no
// session is resumed; idle connections give their buffers back.
class TlsContext : public sslContext {
 public:
  using Configure = std::function<void(SSL_CTX*)>;
  using Info = void (*)(const SSL*, int where, int ret);

  // For the next ORB.
  static TlsContext* Register(const Configure& configure, Info info);
  // Takes back what was registered, if no ORB has taken it over.
  static void Discard();

  // Throws what `configure` has thrown. An exception that went through the making of an ORB would
  // leave it half made.
  void RethrowFailure() const;

 private:
  TlsContext(const Configure& configure, Info info);

  // The ORB would read files here.
  void set_certificate() override {}
  void set_privatekey() override {}
  void set_CA() override;

  const Configure configure_;
  const Info info_;
  std::exception_ptr failure_;
};

}  // namespace Broker
