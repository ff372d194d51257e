#pragma once

#include <cstddef>
#include <cstdint>

// The settings that are read once in the life of the process and kept.
// Threads: any; a race at the first use is harmless, since every thread reads the same value.
namespace MessageRouter::Settings {

bool ShrinkEnvelopes();
std::uint32_t MessageTimeoutSec();

// The largest envelopes, in bytes on the wire; those of Broker::Limits.
struct LargestEnvelopes {
  std::size_t beginsHere;
  std::size_t fromRouter;  // without what it may have grown by
};
LargestEnvelopes Largest();
// What a router takes from another one with so many stamps, its own included.
std::size_t LargestWithStamps(std::size_t stamps);

// For tests: the next use reads the configuration again, and other limits until then.
void Forget();
void SetLargest(const LargestEnvelopes& largest);

}  // namespace MessageRouter::Settings
