#pragma once

#include <cstdint>
#include <string>

namespace MessageRouter {

class ACE_XPlatform_Configuration;

// The process-wide settings of the router's section. A value is read where it is needed, and the
// reader passes the default; nothing is cached, so that a change counts at the next read.
// Threads: any. One mutex is held for the length of one value. A write that waits for another
// process's write does so without it.

// The value as unsigned 32 bits. 0 if the mutex can't be taken.
std::uint32_t GetConfigInt(const char* name, std::uint32_t defaultValue);
// False if the mutex can't be taken.
bool GetConfigBool(const char* name, bool defaultValue);
// Longer values are cut, with an error line. Empty if the mutex can't be taken. Throws
// std::invalid_argument if the default itself is too long.
std::string GetConfigString(const char* name, const std::string& defaultValue,
                            std::size_t maximumSize = 4096);

// A failure is silent.
void SetConfigInt(const char* name, std::uint32_t value);
void SetConfigBool(const char* name, bool value);
void SetConfigString(const char* name, const std::string& value);
// Onto stable storage; a failure is logged.
void SaveConfiguration();

// Opens the section and makes the store the process's configuration; takes ownership of it. Throws
// std::invalid_argument for null, std::runtime_error if the section can't be opened or made.
void SetConfiguration(ACE_XPlatform_Configuration* configuration, const std::string& sectionPath);

inline constexpr char kSectionRoot[] = "SOFTWARE\\Brelix\\Messaging System";
inline constexpr char kSharedStorePath[] = "./brelix.config";

}  // namespace MessageRouter
