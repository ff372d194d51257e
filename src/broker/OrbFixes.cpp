#include "broker/OrbFixes.h"

#include <dlfcn.h>

#include <stdexcept>

#include "broker/OrbInternals.h"

namespace {

constexpr char kHandleCancelRequest[] = "_ZN4omni6GIOP_S19handleCancelRequestEv";

// The file that a function was loaded from; null if that is not known.
const void* ImageOf(const void* function) {
  Dl_info info;
  return function != nullptr && ::dladdr(function, &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace

// A request to cancel can't stop an operation that runs. The library's own function leaves a state
// in which the record of the request is never freed: some hundred bytes for every such message,
// which is a small one, while another request of the connection is in progress.
// The library calls this through its procedure linkage table, where the program's definitions come
// first.
CORBA::Boolean omni::GIOP_S::handleCancelRequest() {
  response_expected(0);
  clearDeadline();
  pd_state = ReplyCompleted;
  return 1;
}

namespace Broker {

void RequireOrbFixes() {
  const void* const ours = ImageOf(reinterpret_cast<const void*>(&RequireOrbFixes));
  if (ours == nullptr || ImageOf(::dlsym(RTLD_DEFAULT, kHandleCancelRequest)) != ours) {
    throw std::runtime_error("A replaced function of the ORB is not in force");
  }
}

}  // namespace Broker
