#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "routing/RegEntry.h"

// The text of the router table file: one record a line.
namespace MessageRouter {

// A name with a dot or a line end would not be read back.
bool CanBeStored(const std::string& name);

std::string ComposeTableText(const std::vector<RegEntry>& records);

// The records up to the first line that does not parse, and that line's number; 0 if all do.
struct ParsedTableText {
  std::vector<RegEntry> records;
  std::size_t badLine = 0;
};
// Empty lines are passed over.
ParsedTableText ParseTableText(const std::string& text);

}  // namespace MessageRouter
