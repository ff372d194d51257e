#pragma once

#include <string>

namespace BrokerTest {

inline std::string ToHexadecimal(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

inline std::string FromHexadecimal(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace BrokerTest
