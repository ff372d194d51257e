#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace MessageRouter {

// The text of a configuration store, in the form that ACE's import and export of a configuration
// use: "[section]", then lines "name"="text", "name"=dword:<hexadecimal>, "name"=hex:<bytes>.
// Comments begin with ";" or "#". Texts with line ends are written in an escaped form.
struct ConfigurationSection {
  using Binary = std::vector<unsigned char>;
  using Value = std::variant<std::string, std::uint32_t, Binary>;
  struct Item {
    std::string name;
    Value value;
  };

  std::string path;  // levels separated by "\"
  std::vector<Item> items;
};

struct ParsedConfiguration {
  std::vector<ConfigurationSection> sections;
  unsigned badLine = 0;  // the first line that could not be read, from 1; 0: all could
};

// Total: whatever the bytes are, it returns, with memory in proportion to them.
ParsedConfiguration ParseConfiguration(std::string_view text);

void AppendSection(std::string& text, const std::string& path);
void AppendItem(std::string& text, const ConfigurationSection::Item& item);

}  // namespace MessageRouter
