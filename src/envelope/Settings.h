#pragma once

#include <cstdint>

// The settings that are read once in the life of the process and kept.
// Threads: any; a race at the first use is harmless, since every thread reads the same value.
namespace MessageRouter::Settings {

bool ShrinkEnvelopes();
std::uint32_t MessageTimeoutSec();
// For tests: the next use reads the configuration again.
void Forget();

}  // namespace MessageRouter::Settings
