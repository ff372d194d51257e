#pragma once

#include "envelope/Envelope.h"

namespace MessageRouter {

// Leaves a readable copy of the envelope beside its file. Not available in this version: throws
// std::runtime_error, which Retire reports.
void LeaveTrail(Envelope& envelope);

}  // namespace MessageRouter
