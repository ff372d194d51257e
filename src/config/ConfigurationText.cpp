#include "config/ConfigurationText.h"

#include <charconv>
#include <cstdio>
#include <optional>

namespace MessageRouter {
namespace {

using Binary = ConfigurationSection::Binary;
using Item = ConfigurationSection::Item;
using Value = ConfigurationSection::Value;

// A text with this in front has its line ends and per cent signs escaped.
constexpr std::string_view kEscaped = "%escaped:";

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::uint32_t> Hexadecimal(std::string_view text) {
  std::uint32_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value, 16);
  if (error != std::errc() || stopped != end || text.empty()) return std::nullopt;
  return value;
}

std::optional<Binary> Bytes(std::string_view text) {
  Binary bytes;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::optional<std::uint32_t> byte = Hexadecimal(Trim(text.substr(0, comma)));
    if (!byte || *byte > 255) return std::nullopt;
    bytes.push_back(static_cast<unsigned char>(*byte));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  return bytes;
}

std::optional<std::string> Unescape(std::string_view text) {
  if (!text.starts_with(kEscaped)) return std::string(text);
  text.remove_prefix(kEscaped.size());
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result += text[i];
      continue;
    }
    const std::optional<std::uint32_t> code = Hexadecimal(text.substr(i + 1, 2));
    if (!code || text.size() - i < 3) return std::nullopt;
    result += static_cast<char>(*code);
    i += 2;
  }
  return result;
}

std::string Escape(const std::string& text) {
  if (text.find_first_of("\r\n") == std::string::npos && !text.starts_with(kEscaped)) return text;
  std::string result(kEscaped);
  for (const char c : text) {
    if (c == '%' || c == '\r' || c == '\n') {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned char>(c));
      result += code;
    } else {
      result += c;
    }
  }
  return result;
}

std::optional<Value> ParseValue(std::string_view text) {
  constexpr std::string_view kDword = "dword:";
  constexpr std::string_view kHex = "hex:";
  if (text.starts_with(kDword)) return Hexadecimal(text.substr(kDword.size()));
  if (text.starts_with(kHex)) return Bytes(text.substr(kHex.size()));
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') return std::nullopt;
  return Unescape(text.substr(1, text.size() - 2));
}

// "name"=value
std::optional<Item> ParseItem(std::string_view line) {
  if (line.empty() || line.front() != '"') return std::nullopt;
  const std::size_t close = line.find('"', 1);
  if (close == std::string_view::npos) return std::nullopt;
  const std::string_view rest = Trim(line.substr(close + 1));
  if (rest.empty() || rest.front() != '=') return std::nullopt;
  std::optional<Value> value = ParseValue(Trim(rest.substr(1)));
  if (!value) return std::nullopt;
  return Item{std::string(line.substr(1, close - 1)), std::move(*value)};
}

// False for a line that is none.
bool ParseLine(std::string_view line, std::vector<ConfigurationSection>& sections) {
  line = Trim(line);
  if (line.empty() || line.front() == ';' || line.front() == '#') return true;
  if (line.find('\0') != std::string_view::npos) return false;
  if (line.front() == '[') {
    if (line.size() < 3 || line.back() != ']') return false;
    sections.push_back({std::string(line.substr(1, line.size() - 2)), {}});
    return true;
  }
  std::optional<Item> item = ParseItem(line);
  if (!item || sections.empty()) return false;
  sections.back().items.push_back(std::move(*item));
  return true;
}

}  // namespace

ParsedConfiguration ParseConfiguration(std::string_view text) {
  ParsedConfiguration parsed;
  for (unsigned number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    if (!ParseLine(text.substr(0, end), parsed.sections)) {
      parsed.badLine = number;
      break;
    }
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return parsed;
}

void AppendSection(std::string& text, const std::string& path) {
  if (!text.empty()) text += '\n';
  text += '[' + path + "]\n";
}

void AppendItem(std::string& text, const Item& item) {
  text += '"' + item.name + "\"=";
  char number[16];
  if (const auto* value = std::get_if<std::uint32_t>(&item.value)) {
    std::snprintf(number, sizeof number, "dword:%08x", *value);
    text += number;
  } else if (const auto* bytes = std::get_if<Binary>(&item.value)) {
    text += "hex:";
    for (std::size_t i = 0; i < bytes->size(); ++i) {
      std::snprintf(number, sizeof number, i == 0 ? "%02x" : ",%02x", (*bytes)[i]);
      text += number;
    }
  } else {
    text += '"' + Escape(std::get<std::string>(item.value)) + '"';
  }
  text += '\n';
}

}  // namespace MessageRouter
