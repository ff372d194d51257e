#pragma once

#include <functional>
#include <string>
#include <vector>

namespace MessageRouter {

// Message ids and the names of log files carry the second in which they were made, and a process
// knows nothing of what the one before it made. A router that starts in the second in which its
// predecessor was killed would make the same ids and names again.
//
// Waits while the present second is one in which a name came into or left one of the folders.
// `sleep` takes milliseconds and is called for two seconds in total at most, however the clock
// stands. A folder that is not there holds nobody up.
// Threads: the start, before the log is open.
void AwaitSecondOfOwn(const std::vector<std::string>& folders,
                      const std::function<void(unsigned milliseconds)>& sleep);

}  // namespace MessageRouter
