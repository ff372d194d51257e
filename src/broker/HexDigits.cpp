#include "broker/HexDigits.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace HexDigits {
namespace {

constexpr std::size_t kBlock = 16;
using Block = std::uint8_t __attribute__((vector_size(kBlock)));

constexpr std::uint8_t kNibbleBits = 4;
constexpr std::uint8_t kNibble = 15;

Block Load(const void* from) {
  Block block;
  std::memcpy(&block, from, sizeof block);
  return block;
}

// A comparison of blocks gives all ones where it holds.
Block DigitsOf(const Block& nibbles) {
  constexpr std::uint8_t kLetter = 'a' - '9' - 1;
  return nibbles + '0' + (reinterpret_cast<Block>(nibbles > 9) & kLetter);
}

Block ValuesOf(const Block& digits) {
  constexpr std::uint8_t kDecimal = '7' - '0';
  constexpr std::uint8_t kLetter = 'W' - '7';
  const auto decimal = reinterpret_cast<Block>((digits >= '0') & (digits <= '9'));
  const auto letter = reinterpret_cast<Block>((digits >= 'a') & (digits <= 'z'));
  return digits - '7' + (decimal & kDecimal) - (letter & kLetter);
}

void WriteBlock(const unsigned char* bytes, char* digits) {
  const Block block = Load(bytes);
  const Block high = DigitsOf(block >> kNibbleBits);
  const Block low = DigitsOf(block & kNibble);
  const Block pairs[] = {
      __builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23),
      __builtin_shufflevector(high, low, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15,
                              31)};
  std::memcpy(digits, pairs, sizeof pairs);
}

void ReadBlock(const char* digits, unsigned char* bytes) {
  const Block one = ValuesOf(Load(digits));
  const Block other = ValuesOf(Load(digits + kBlock));
  const Block high = __builtin_shufflevector(one, other, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22,
                                             24, 26, 28, 30);
  const Block low = __builtin_shufflevector(one, other, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23,
                                            25, 27, 29, 31);
  const Block values = (high << kNibbleBits) + low;
  std::memcpy(bytes, &values, sizeof values);
}

}  // namespace

char* Write(const unsigned char* bytes, std::size_t size, char* digits) {
  for (; size >= kBlock; size -= kBlock, bytes += kBlock, digits += kBlock * 2) {
    WriteBlock(bytes, digits);
  }
  std::array<unsigned char, kBlock> rest{};
  std::array<char, kBlock * 2> pairs;
  std::copy_n(bytes, size, rest.begin());
  WriteBlock(rest.data(), pairs.data());
  return std::copy_n(pairs.begin(), size * 2, digits);
}

void Read(const char* digits, std::size_t size, unsigned char* bytes) {
  for (; size >= kBlock; size -= kBlock, bytes += kBlock, digits += kBlock * 2) {
    ReadBlock(digits, bytes);
  }
  std::array<char, kBlock * 2> rest{};
  std::array<unsigned char, kBlock> values;
  std::copy_n(digits, size * 2, rest.begin());
  ReadBlock(rest.data(), values.data());
  std::copy_n(values.begin(), size, bytes);
}

}  // namespace HexDigits
