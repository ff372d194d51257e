#pragma once

#include <string_view>

namespace Platform {

// Writes all of it, also where the system takes only parts. 0 or the error.
int WriteAll(int descriptor, std::string_view content);

}  // namespace Platform
