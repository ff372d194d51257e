#pragma once

#include <cstddef>
#include <cstdint>

// The settings that are read once in the life of the process and kept.
// Threads: any; a race at the first use is harmless, since every thread reads the same value.
namespace MessageRouter::Settings {

bool ShrinkEnvelopes();
std::uint32_t MessageTimeoutSec();

// The largest envelopes that are taken, in bytes on the wire; those of Broker::Limits.
struct LargestEnvelopes {
  std::size_t fromClient;
  std::size_t fromRouter;
};
LargestEnvelopes Largest();

// For tests: the next use reads the configuration again, and other limits until then.
void Forget();
void SetLargest(const LargestEnvelopes& largest);

}  // namespace MessageRouter::Settings
