#pragma once

namespace Broker {

// Functions of the ORB library that the program replaces, because peers could make them lose
// memory. Throws std::runtime_error if the library does not use ours.
void RequireOrbFixes();

// The ORB asks for the host's addresses once a process, and names them in every reference: before
// it is made again it must forget them. Not while an ORB lives.
void ForgetHostAddresses();

}  // namespace Broker
