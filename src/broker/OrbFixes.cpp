#include "broker/OrbFixes.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

#include "broker/OrbInternals.h"

namespace {

constexpr char kReleaseServer[] = "_ZN4omni10giopStrand13releaseServerEPNS_5IOP_SE";

using ReleaseFunction = void (*)(omni::giopStrand*, omni::IOP_S*);

// The file that a function was loaded from; null if that is not known.
const void* ImageOf(const void* function) {
  Dl_info info;
  return function != nullptr && ::dladdr(function, &info) != 0 ? info.dli_fbase : nullptr;
}

ReleaseFunction Original() {
  void* const address = ::dlsym(RTLD_NEXT, kReleaseServer);
  if (address == nullptr) std::abort();
  return reinterpret_cast<ReleaseFunction>(address);
}

}  // namespace

// The end of the ORB's work on one message of a connection. The library's own function never frees
// the record of one that still stands as waiting for its reply. Nothing will ever reply to it: that
// is how a request to cancel leaves it, and a request whose sender goes away while the rest of it
// is skipped. Peers could bring about both at will, some hundred bytes each time.
// The library calls this through its procedure linkage table, where the program's definitions come
// first.
void omni::giopStrand::releaseServer(omni::IOP_S* record) {
  static const ReleaseFunction original = Original();
  auto* const request = static_cast<omni::GIOP_S*>(record);
  if (request->state() == IOP_S::WaitingForReply) request->state(IOP_S::ReplyCompleted);
  original(this, record);
}

namespace Broker {

void RequireOrbFixes() {
  const void* const ours = ImageOf(reinterpret_cast<const void*>(&RequireOrbFixes));
  if (ours == nullptr || ImageOf(::dlsym(RTLD_DEFAULT, kReleaseServer)) != ours) {
    throw std::runtime_error("A replaced function of the ORB is not in force");
  }
}

}  // namespace Broker
