#pragma once

#include <ace/config-all.h>

#include <chrono>

namespace MessageRouter {

enum class Readiness { Read, Write };

// Waits until the socket is ready, or has failed, for at most `time`. 1 if it is ready, 0 if the
// time ran out, -1 with errno set. Any descriptor will do, above 1024 too.
int WaitForSocket(ACE_HANDLE socket, Readiness readiness, std::chrono::milliseconds time);

}  // namespace MessageRouter
