#pragma once

#include "broker/Connection.h"

namespace omni {
class giopStrand;
}

namespace Broker {

// The way from the ORB's view of a connection to ours. The caller is serving the connection or
// holds the ORB's transport lock.

// Null for a connection without TLS.
Connection* ConnectionOf(omni::giopStrand& strand);
// -1 if it is not known.
int SocketOf(omni::giopStrand& strand);
// Breaks it. `connection` is what ConnectionOf gives.
void ShutStrand(omni::giopStrand& strand, Connection* connection);

}  // namespace Broker
