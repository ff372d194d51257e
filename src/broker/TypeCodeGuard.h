#pragma once

#include <cstddef>

// The guard in front of the ORB's own reader of type codes, which crashes, hangs or allocates
// gigabytes on crafted inputs of a few hundred bytes. It takes the reader's place for the whole
// process: arguments, replies, files. What passes it is safe to read; what it refuses is
// CORBA::MARSHAL. Recursive types and value types are refused; nothing in the system uses them.
namespace Broker::TypeCodeGuard {

inline constexpr std::size_t kMaxTypeCodeBytes = 256 * 1024;
inline constexpr unsigned kMaxDepth = 48;       // type codes within type codes
inline constexpr unsigned kMaxMembers = 4096;   // of a struct, union or exception
inline constexpr unsigned kMaxNodes = 20000;    // type codes in one
inline constexpr unsigned kMaxAnyDepth = 8;     // anys within anys
inline constexpr unsigned kMaxSimpleLeaves = 63;

// Whether the guard is in force in this process. It needs an ORB.
bool SelfTest();

}  // namespace Broker::TypeCodeGuard
