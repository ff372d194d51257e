#pragma once

#include <chrono>

namespace Broker {

// Puts our functions into the ORB's chains: what CurrentCall and the hook need, the use of each
// connection, and the names of threads. The ORB forgets them when it is destroyed, so this follows
// each making of an ORB.
void InstallInterceptors();

// Waits until all threads of destroyed ORBs are gone, and what libraries keep for them, at most so
// long.
void AwaitEndOfThreads(std::chrono::milliseconds patience);

}  // namespace Broker
