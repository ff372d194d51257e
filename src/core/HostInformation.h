#pragma once

#include <cstdint>

namespace MessageRouter {

// Logs the host's name and addresses, for support. Changes nothing.
void LogHostInformation();

// Binds the process to one processor. What is impossible is logged and left undone.
void SetCpuAffinity(std::int32_t cpu);

}  // namespace MessageRouter
