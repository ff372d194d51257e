#pragma once

#include <optional>
#include <string>

namespace Platform {

// Conversions between UTF-7, in which names travel, and the local code page, which is UTF-8.
// Nothing if the text is not valid in its own encoding.
std::optional<std::string> Utf7ToLocal(const std::string& text);
std::optional<std::string> LocalToUtf7(const std::string& text);

// What makes lines of its own, or moves the cursor, where a text is shown.
inline bool IsControl(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

}  // namespace Platform
