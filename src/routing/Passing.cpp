#include "routing/Passing.h"

#include <new>

#include "envelope/Envelope.h"

namespace MessageRouter {

bool IsPassing(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) != nullptr ||
         dynamic_cast<const PassingShortage*>(&exception) != nullptr ||
         dynamic_cast<const LockFailure*>(&exception) != nullptr;
}

}  // namespace MessageRouter
