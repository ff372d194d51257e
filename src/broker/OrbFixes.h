#pragma once

namespace Broker {

// Functions of the ORB library that the program replaces, because peers could make them lose
// memory. Throws std::runtime_error if the library does not use ours.
void RequireOrbFixes();

}  // namespace Broker
