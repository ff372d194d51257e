#pragma once

#include <cstddef>

// The guard in front of the ORB's own reader of type codes, which crashes, hangs or allocates
// gigabytes on crafted inputs of a few hundred bytes. It takes the reader's place for the whole
// process: arguments, replies, files. What passes it is safe to read; what it refuses is
// CORBA::MARSHAL. Recursive types and value types are refused; nothing in the system uses them.
//
// On the way out it makes type codes the same in every run: the ORB leaves memory contents in their
// padding and writes a default index of its own for unions that need none.
// Threads: any.
namespace Broker::TypeCodeGuard {

inline constexpr std::size_t kMaxTypeCodeBytes = 256 * 1024;
inline constexpr unsigned kMaxDepth = 48;            // type codes within type codes
inline constexpr unsigned kMaxMembers = 4096;        // of a struct, union or exception
inline constexpr unsigned kMaxEnumerators = 65536;   // of an enum
inline constexpr unsigned kMaxNameBytes = 4096;      // of one name or repository id
inline constexpr unsigned kMaxNodes = 20000;         // type codes in one
inline constexpr unsigned kMaxAnyDepth = 8;          // anys within anys
inline constexpr unsigned kMaxLeaves = 65536;        // simple values in one fixed-size type
inline constexpr unsigned kMaxLeavesInAll = 524288;  // the same, added up over all nodes
inline constexpr unsigned kMaxSimpleLeaves = 63;     // of an element that is copied as a block

// The ORB reads an any within an any twice at every level. What one outermost any may cost in all:
// its type codes' bytes, and so many more for each type code.
inline constexpr std::size_t kMaxWorkPerAny = 16 * 1024 * 1024;
inline constexpr std::size_t kWorkPerTypeCode = 64;

// Whether the guard is in force in this process. It needs an ORB.
bool SelfTest();
// Throws std::runtime_error if it is not.
void RequireInForce();

}  // namespace Broker::TypeCodeGuard
