#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Platform {

// CommonDataFolder for a process that is root or not, in the environment that `get` shows (null for
// a variable that is not set).
std::optional<std::string> CommonDataFolderFor(bool root,
                                               const std::function<const char*(const char*)>& get);

}  // namespace Platform
