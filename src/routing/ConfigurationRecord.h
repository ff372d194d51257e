#pragma once

#include <BrelixMessaging.h>

namespace MessageRouter {

// The Configuration record of the contract, each field of which is a key of the configuration.
// No message leads here yet.
// Threads: any.

// The values in force, defaults included.
void ReadConfiguration(CORBA::Any& record);
// Stores all fields and saves once; they count at the next start of routing. False, with nothing
// stored, if that is no Configuration. A failed save is logged.
bool WriteConfiguration(const CORBA::Any& record);

}  // namespace MessageRouter
