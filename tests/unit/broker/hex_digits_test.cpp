#include "broker/HexDigits.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kLongest = 70;  // some blocks and a rest

using Bytes = std::vector<unsigned char>;

TEST(HexDigits, AreLowerCaseAndReadBackAtEverySize) {
  Bytes bytes;
  std::string expected;
  for (std::size_t size = 0; size <= kLongest; ++size) {
    std::string text(size * 2 + 1, '#');
    EXPECT_EQ(HexDigits::Write(bytes.data(), size, text.data()), text.data() + size * 2);
    EXPECT_EQ(text, expected + '#') << size;
    Bytes back(size + 1, 0xEE);
    HexDigits::Read(expected.data(), size, back.data());
    EXPECT_EQ(back.back(), 0xEE) << size;
    back.pop_back();
    EXPECT_EQ(back, bytes) << size;

    bytes.push_back(static_cast<unsigned char>(size * 151 + 7));
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", bytes.back());
    expected += digits;
  }
}

TEST(HexDigits, EveryByteHasItsOwn) {
  for (unsigned number = 0; number < 256; ++number) {
    const auto byte = static_cast<unsigned char>(number);
    char expected[3];
    std::snprintf(expected, sizeof expected, "%02x", number);
    char digits[3] = "";
    HexDigits::Write(&byte, 1, digits);
    EXPECT_STREQ(digits, expected);
  }
}

TEST(HexDigits, EveryCharacterHasAValue) {
  for (int character = 0; character < 256; ++character) {
    int value = character - '7';
    if (character >= '0' && character <= '9') value = character - '0';
    if (character >= 'a' && character <= 'z') value = character - 'W';
    const char pair[] = {static_cast<char>(character), '3', '2', static_cast<char>(character)};
    Bytes bytes(2);
    HexDigits::Read(pair, bytes.size(), bytes.data());
    EXPECT_EQ(bytes[0], static_cast<unsigned char>(value * 16 + 3)) << character;
    EXPECT_EQ(bytes[1], static_cast<unsigned char>(2 * 16 + value)) << character;
  }
}

}  // namespace
