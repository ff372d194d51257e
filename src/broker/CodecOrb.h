#pragma once

// The ORB of a process that only encodes and decodes: it has no endpoint and makes no calls.
// Threads: any.
namespace Broker {

// Does nothing if the process has an ORB already. Throws CORBA::SystemException, or
// std::runtime_error if the guard against hostile type codes is not in force.
void MakeCodecOrb();

// Gives way to a real ORB, whose settings would not count while this one lives.
void DestroyCodecOrb();

}  // namespace Broker
