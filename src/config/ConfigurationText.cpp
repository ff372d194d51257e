#include "config/ConfigurationText.h"

#include <charconv>
#include <cstdio>
#include <set>
#include <utility>

namespace MessageRouter {
namespace {

using Binary = ConfigurationText::Binary;
using Value = ConfigurationText::Value;

constexpr std::size_t kLongestName = 255;
constexpr std::string_view kEscaped = "%escaped:";
constexpr std::string_view kUnfitForLine("\r\n\0", 3);

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
    const std::optional<std::uint32_t> byte = Hexadecimal(text.substr(0, comma));
    if (!byte || *byte > 0xFF) return std::nullopt;
    bytes.push_back(static_cast<unsigned char>(*byte));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
    if (text.empty()) return std::nullopt;
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
    const std::string_view digits = text.substr(i + 1, 2);
    const std::optional<std::uint32_t> code = Hexadecimal(digits);
    if (!code || digits.size() != 2) return std::nullopt;
    result += static_cast<char>(*code);
    i += 2;
  }
  return result;
}

std::string Escape(const std::string& text) {
  if (text.find_first_of(kUnfitForLine) == std::string::npos && !text.starts_with(kEscaped)) {
    return text;
  }
  std::string result(kEscaped);
  for (const char c : text) {
    if (c != '%' && kUnfitForLine.find(c) == std::string_view::npos) {
      result += c;
      continue;
    }
    char code[4];
    std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned char>(c));
    result += code;
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

std::string ItemLine(const std::string& name, const Value& value) {
  std::string text = '"' + name + "\"=";
  char number[16];
  if (const auto* integer = std::get_if<std::uint32_t>(&value)) {
    std::snprintf(number, sizeof number, "dword:%08x", *integer);
    text += number;
  } else if (const auto* bytes = std::get_if<Binary>(&value)) {
    text += "hex:";
    for (std::size_t i = 0; i < bytes->size(); ++i) {
      std::snprintf(number, sizeof number, i == 0 ? "%02x" : ",%02x", (*bytes)[i]);
      text += number;
    }
  } else {
    text += '"' + Escape(std::get<std::string>(value)) + '"';
  }
  return text += '\n';
}

std::string HeaderLine(const std::string& section) {
  return '[' + section + "]\n";
}

struct Line {
  enum class Kind { kNothing, kHeader, kItem, kBad };
  Kind kind = Kind::kNothing;
  std::string_view name;  // of an item, a part of the text
  std::string_view value;
};

// Goes through a text line by line and knows the section that each stands in.
class Lines {
 public:
  explicit Lines(std::string_view text) : text_(text) {}

  // False at the end of the text.
  bool Next() {
    begin_ = end_;
    if (begin_ == text_.size()) return false;
    const std::size_t feed = text_.find('\n', begin_);
    end_ = feed == std::string_view::npos ? text_.size() : feed + 1;
    Read(Trim(text_.substr(begin_, (feed == std::string_view::npos ? end_ : feed) - begin_)));
    return true;
  }

  const Line& Current() const { return line_; }
  const std::string& Section() const { return section_; }
  std::size_t Begin() const { return begin_; }
  std::size_t End() const { return end_; }  // behind the line feed
  std::string_view Raw() const { return text_.substr(begin_, end_ - begin_); }

 private:
  void Read(std::string_view line) {
    line_ = {};
    if (line.empty() || line.front() == ';' || line.front() == '#') return;
    line_.kind = Line::Kind::kBad;
    if (line.find('\0') != std::string_view::npos) return;
    if (line.front() == '[') {
      ReadHeader(line);
    } else if (line.front() == '"' && !section_.empty()) {
      ReadItem(line);
    }
  }

  void ReadHeader(std::string_view line) {
    if (line.back() != ']') return;
    std::optional<std::string> path =
        ConfigurationText::SectionPath(line.substr(1, line.size() - 2));
    if (!path) return;
    section_ = std::move(*path);
    line_.kind = Line::Kind::kHeader;
  }

  void ReadItem(std::string_view line) {
    const std::size_t close = line.find('"', 1);
    if (close == std::string_view::npos || line.substr(close + 1, 1) != "=") return;
    line_.name = line.substr(1, close - 1);
    line_.value = line.substr(close + 2);
    if (ConfigurationText::IsValueName(line_.name)) line_.kind = Line::Kind::kItem;
  }

  std::string_view text_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::string section_;
  Line line_;
};

bool IsBelow(std::string_view section, std::string_view above) {
  return section.size() > above.size() && section.starts_with(above) &&
         section[above.size()] == '\\';
}

}  // namespace

std::optional<ConfigurationText> ConfigurationText::Parse(std::string text, std::size_t* badLine) {
  ConfigurationText result;
  result.text_ = std::move(text);
  Lines lines(result.text_);
  Values* values = nullptr;
  for (std::size_t number = 1; lines.Next(); ++number) {
    std::optional<Value> value;
    switch (lines.Current().kind) {
      case Line::Kind::kNothing:
        continue;
      case Line::Kind::kHeader:
        values = &result.sections_[lines.Section()];
        continue;
      case Line::Kind::kItem:
        value = ParseValue(lines.Current().value);
        break;
      case Line::Kind::kBad:
        break;
    }
    if (!value || values == nullptr) {
      if (badLine != nullptr) *badLine = number;
      return std::nullopt;
    }
    values->insert_or_assign(std::string(lines.Current().name), std::move(*value));
  }
  return result;
}

std::optional<std::string> ConfigurationText::SectionPath(std::string_view path) {
  if (path.find_first_of("[]") != std::string_view::npos) return std::nullopt;
  if (path.find_first_of(kUnfitForLine) != std::string_view::npos) return std::nullopt;
  if (path.size() > kLongestName) return std::nullopt;
  std::string result;
  while (!path.empty()) {
    const std::size_t separator = path.find_first_of("\\/");
    const std::string_view level = path.substr(0, separator);
    if (!level.empty()) {
      if (!result.empty()) result += '\\';
      result += level;
    }
    if (separator == std::string_view::npos) break;
    path.remove_prefix(separator + 1);
  }
  if (result.empty()) return std::nullopt;
  return result;
}

bool ConfigurationText::IsValueName(std::string_view name) {
  constexpr std::string_view kUnfit("\\[]\"\r\n\0", 7);
  return name.size() <= kLongestName && name.find_first_of(kUnfit) == std::string_view::npos;
}

std::string ConfigurationText::Plain() const {
  std::string text;
  for (const auto& [path, values] : sections_) {
    text += HeaderLine(path);
    for (const auto& [name, value] : values) text += ItemLine(name, value);
  }
  return text;
}

const ConfigurationText::Values* ConfigurationText::Find(const std::string& section) const {
  static const Values kNone;
  if (const auto found = sections_.find(section); found != sections_.end()) return &found->second;
  const auto below = sections_.lower_bound(section + '\\');
  return below != sections_.end() && IsBelow(below->first, section) ? &kNone : nullptr;
}

std::vector<std::string> ConfigurationText::Below(const std::string& section) const {
  std::set<std::string> names;
  const std::size_t level = section.size() + 1;
  for (auto i = sections_.lower_bound(section + '\\');
       i != sections_.end() && IsBelow(i->first, section); ++i) {
    names.insert(i->first.substr(level, i->first.find('\\', level) - level));
  }
  return {names.begin(), names.end()};
}

std::string ConfigurationText::WithSection(const std::string& section) const {
  if (Find(section) != nullptr) return text_;
  std::string text = text_;
  if (!text.empty() && text.back() != '\n') text += '\n';
  if (!text.empty()) text += '\n';
  return text + HeaderLine(section);
}

std::string ConfigurationText::WithValue(const std::string& section, const std::string& name,
                                         const Value& value) const {
  if (const Values* const values = Find(section)) {
    const auto found = values->find(name);
    if (found != values->end() && found->second == value) return text_;
  }
  // The line that counts is the last of that name; a new one goes behind the section's last.
  std::optional<std::pair<std::size_t, std::size_t>> place;
  bool replaces = false;
  Lines lines(text_);
  while (lines.Next()) {
    if (lines.Section() != section || lines.Current().kind == Line::Kind::kNothing) continue;
    const bool same = lines.Current().kind == Line::Kind::kItem && lines.Current().name == name;
    if (same) {
      place.emplace(lines.Begin(), lines.End());
      replaces = true;
    } else if (!replaces) {
      place.emplace(lines.End(), lines.End());
    }
  }
  if (!place) {
    std::string text = text_;
    if (!text.empty() && text.back() != '\n') text += '\n';
    if (!text.empty()) text += '\n';
    return text + HeaderLine(section) + ItemLine(name, value);
  }
  std::string head = text_.substr(0, place->first);
  if (!head.empty() && head.back() != '\n') head += '\n';
  return head + ItemLine(name, value) + text_.substr(place->second);
}

std::string ConfigurationText::WithoutValue(const std::string& section,
                                            const std::string& name) const {
  std::string text;
  Lines lines(text_);
  while (lines.Next()) {
    const bool goes = lines.Section() == section && lines.Current().kind == Line::Kind::kItem &&
                      lines.Current().name == name;
    if (!goes) text += lines.Raw();
  }
  return text;
}

std::string ConfigurationText::WithoutSection(const std::string& section) const {
  std::string text;
  Lines lines(text_);
  while (lines.Next()) {
    if (lines.Section() != section && !IsBelow(lines.Section(), section)) text += lines.Raw();
  }
  return text;
}

}  // namespace MessageRouter
