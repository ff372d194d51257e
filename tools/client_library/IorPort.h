#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace ClientLibrary {

inline constexpr std::uint16_t kDefaultIorPort = 8192;
inline constexpr std::size_t kMaxIorLength = 64 * 1024;

// True for "IOR:" with an even number of hexadecimal digits behind it, at least one pair.
bool LooksLikeIor(const std::string& text);

// Fetches the object reference that a router hands out on its IOR port. The name's addresses are
// tried in order; `limit` holds for connecting and reading together. Throws Failure: TimedOut when
// the time runs out, Failed for everything else.
std::string FetchIor(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit);

}  // namespace ClientLibrary
