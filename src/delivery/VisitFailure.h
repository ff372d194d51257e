#pragma once

namespace MessageRouter {

// Within a catch block of a visit: logs what is being handled, in the name of a worker's class.
// What is no exception of the ORB or the library, which nobody foresaw, goes on.
void LogVisitFailure(const char* worker);

}  // namespace MessageRouter
