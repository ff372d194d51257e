#include "broker/StrandConnection.h"

#include <cstring>

#include "broker/ConnectionTable.h"
#include "broker/OrbInternals.h"

namespace Broker {
namespace {

constexpr char kTlsPrefix[] = "giop:ssl:";

// The ORB names the transport in the peer's address, and each transport has one class.
omni::sslConnection* TlsConnectionOf(omni::giopStrand& strand) {
  omni::giopConnection* const connection = strand.connection;
  if (connection == nullptr ||
      std::strncmp(connection->peeraddress(), kTlsPrefix, sizeof kTlsPrefix - 1) != 0) {
    return nullptr;
  }
  return static_cast<omni::sslConnection*>(connection);
}

}  // namespace

Connection* ConnectionOf(omni::giopStrand& strand) {
  const omni::sslConnection* const tls = TlsConnectionOf(strand);
  return tls == nullptr ? nullptr : ConnectionTable::Of(tls->ssl_handle());
}

int SocketOf(omni::giopStrand& strand) {
  const omni::sslConnection* const tls = TlsConnectionOf(strand);
  return tls == nullptr ? -1 : tls->handle();
}

void ShutStrand(omni::giopStrand& strand, Connection* connection) {
  if (connection != nullptr) {
    ConnectionTable::Instance().Shut(*connection);
  } else {
    strand.connection->Shutdown();
  }
}

}  // namespace Broker
