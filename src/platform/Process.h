#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

// What the router asks of the process that it runs in, and of the host, beyond files and sockets.
namespace Platform {

// Called by ExitProcess before the process ends, to get the last log line onto the disk. One
// function; null for none. It must not throw and must not take long.
void SetLastWords(void (*flush)());

// Ends the process at once: runs the last words, then ends without destructors or exit handlers.
// The status is cut to what the system can carry (-1 is 255).
[[noreturn]] void ExitProcess(int status);

// Stops in a debugger; without one the process ends.
void DebugBreak();

// The handler for a call of a pure virtual function. Null: the runtime's own.
void SetPureCallHandler(void (*handler)());

// The kernel's number of the calling thread.
std::uint32_t ThreadId();
std::uint32_t ProcessId();
void SetThreadName(const char* name);

// Has the calling thread run the action at its very end, when its thread-local objects and what
// libraries keep for each thread are freed. One action a thread, which must not throw. False, and
// nothing is run, if the system lacks the means.
bool RunAtThreadEnd(void (*action)());

// Bit n set: processor n may be used by the process. Nothing if the query fails; Error is then the
// system's number.
std::optional<std::uint64_t> AffinityMask(int* error);
bool SetAffinity(unsigned cpu, int* error);
// Both replaceable for tests; null: the system's. The object must outlive its use.
struct Processors {
  std::optional<std::uint64_t> (*affinityMask)(int* error);
  bool (*setAffinity)(unsigned cpu, int* error);
};
void SetProcessors(const Processors* processors);

// Gives memory that the allocator keeps back to the system.
void TrimMemory();

// Raises the soft limit of open descriptors to the hard one. Returns the limit that now holds.
std::size_t RaiseDescriptorLimit();
// Resident memory in bytes; 0 where it cannot be read.
std::size_t ResidentMemory();

// The host's name, and the name that names the machine when that fails. Nothing on failure.
std::optional<std::string> HostName();
std::optional<std::string> ComputerName();
// Both replaceable for tests; null: the system's. The object must outlive its use.
struct HostNames {
  std::optional<std::string> (*hostName)();
  std::optional<std::string> (*computerName)();
};
void SetHostNames(const HostNames* names);

// The folder for data that all users of the machine share, without a slash at the end. Nothing
// where the system names none. Replaceable for tests.
std::optional<std::string> CommonDataFolder();
using FolderSource = std::optional<std::string> (*)();
void SetCommonDataFolderSource(FolderSource source);  // null: the system

void SleepMilliseconds(unsigned milliseconds);

}  // namespace Platform
