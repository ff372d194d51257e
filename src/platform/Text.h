#pragma once

#include <optional>
#include <string>

namespace Platform {

// Conversions between UTF-7, in which names travel, and the local code page, which is UTF-8.
// Nothing if the text is not valid in its own encoding.
std::optional<std::string> Utf7ToLocal(const std::string& text);
std::optional<std::string> LocalToUtf7(const std::string& text);

}  // namespace Platform
