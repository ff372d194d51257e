#pragma once

#include <string>

namespace Platform {

// The file that a path leads to through symbolic links; the path itself where there is none yet.
std::string RealPath(const std::string& path);

}  // namespace Platform
