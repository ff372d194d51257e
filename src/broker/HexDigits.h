#pragma once

#include <cstddef>

// Bytes as two lower-case hexadecimal digits each, sixteen at a time.
namespace HexDigits {

// Writes 2 * size characters; gives what follows the last.
char* Write(const unsigned char* bytes, std::size_t size, char* digits);

// Reads 2 * size characters. Those that are no digits give wrong bytes and are not refused; every
// lower-case letter counts on from 10, every other character from that of "A".
void Read(const char* digits, std::size_t size, unsigned char* bytes);

}  // namespace HexDigits
