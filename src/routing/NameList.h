#pragma once

#include <BrelixMessaging.h>

#include <vector>

namespace MessageRouter {

// The payload of news about several routers.
CORBA::Any AsNameList(const std::vector<const char*>& names);

}  // namespace MessageRouter
