#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace MessageRouter {

// The text of a configuration file, and what it says. Sections hold values:
//
//   ; a comment, or # a comment
//   [SOFTWARE\Brelix\Messaging System\Router]
//   "ParentAddress"="192.0.2.1"
//   "LogLevel"=dword:00000001
//   "Blob"=hex:00,ff
//
// which is the form that ACE_Registry_ImpExp reads and writes. A string ends at its line's last
// quote; one with a line end or a null character in it is written as "%escaped:" and the text with
// "%" and two hexadecimal digits for these and for "%". Of two values of one name in a section the
// later counts, and a section may stand in several pieces.
//
// A change is made to the text, line by line, so that comments and order stay.
// Objects never change after they are made. Threads: any.
class ConfigurationText {
 public:
  using Binary = std::vector<unsigned char>;
  using Value = std::variant<std::string, std::uint32_t, Binary>;
  using Values = std::map<std::string, Value, std::less<>>;

  ConfigurationText() = default;  // an empty text

  // Nothing if a line can't be read; `badLine` is then its number, from 1. Total: whatever the
  // bytes are, it returns, with time and memory in proportion to them.
  static std::optional<ConfigurationText> Parse(std::string text, std::size_t* badLine);

  // The one form of a path: its levels joined by "\"; "/" separates too, and empty levels fall out.
  // Nothing if it can't name a section: no level, over 255 characters, "[", "]" or a line end.
  static std::optional<std::string> SectionPath(std::string_view path);
  // At most 255 characters, without "[", "]", "\", quotes, line ends and null characters.
  static bool IsValueName(std::string_view name);

  const std::string& Text() const { return text_; }
  // The same sections and values, without comments and ordered by name.
  std::string Plain() const;

  // Paths and names below are in the forms that the functions above demand.

  // Null if there is no such section. A section exists if one below it does.
  const Values* Find(const std::string& section) const;
  // The names of the sections one level below, in order.
  std::vector<std::string> Below(const std::string& section) const;

  // The text after a change; the same text if nothing changes.
  std::string WithSection(const std::string& section) const;
  std::string WithValue(const std::string& section, const std::string& name,
                        const Value& value) const;
  std::string WithoutValue(const std::string& section, const std::string& name) const;
  std::string WithoutSection(const std::string& section) const;  // and without all below it

 private:
  std::string text_;
  std::map<std::string, Values, std::less<>> sections_;
};

}  // namespace MessageRouter
