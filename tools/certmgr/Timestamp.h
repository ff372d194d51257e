#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Certmgr {

// "2026-11-21T06:23:00Z" as seconds since 1970. Nothing for any other form, for dates that don't
// exist, and for years that a certificate can't hold (before 1950 or after 9999).
std::optional<std::int64_t> ParseTimestamp(const std::string& text);

}  // namespace Certmgr
