#include "routing/RouterTableText.h"

#include <sstream>
#include <utility>

namespace MessageRouter {

bool CanBeStored(const std::string& name) {
  return name.find_first_of(".\r\n") == std::string::npos;
}

std::string ComposeTableText(const std::vector<RegEntry>& records) {
  std::ostringstream text;
  // A record that finds no memory must not be missing from the file.
  text.exceptions(std::ios::badbit);
  for (const RegEntry& record : records) record.write(text) << '\n';
  return text.str();
}

ParsedTableText ParseTableText(const std::string& text) {
  ParsedTableText parsed;
  std::size_t number = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    const std::size_t next = end == std::string::npos ? text.size() : end + 1;
    // With its line end, where it has one: a last line that was cut short reads up to the end of
    // the text, and is not kept.
    const std::string lineText = text.substr(start, next - start);
    start = next;
    ++number;
    if (lineText.find_first_not_of("\r\n") == std::string::npos) continue;
    std::istringstream line(lineText);
    // Too little memory is not damage: a stream would keep it to itself.
    line.exceptions(std::ios::badbit);
    RegEntry record;
    record.read(line);
    if (!line.good()) {
      parsed.badLine = number;
      break;
    }
    parsed.records.push_back(std::move(record));
  }
  return parsed;
}

}  // namespace MessageRouter
