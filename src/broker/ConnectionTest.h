#pragma once

#include <omniORB4/CORBA.h>

namespace Broker {

// Whether the peer's process answers for this object: true if it has it, false if it says that it
// hasn't. Throws CORBA::SystemException where no answer comes. Reaches neither a servant nor an
// interceptor.
bool HasValidConnection(CORBA::Object_ptr object);

}  // namespace Broker
