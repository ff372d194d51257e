#include "envelope/Trail.h"

#include <stdexcept>

namespace MessageRouter {

void LeaveTrail(Envelope&) {
  throw std::runtime_error("message trails are not available in this version");
}

}  // namespace MessageRouter
