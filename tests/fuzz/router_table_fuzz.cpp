// The reader of the router table file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "routing/RouterTable.h"

namespace {

// What was read without an oddity is written and read back the same.
void RequireReadBack(const MessageRouter::RegEntry& record) {
  std::ostringstream text;
  record.write(text) << '\n';
  std::size_t badLine = 0;
  const auto again = MessageRouter::ParseTableFile(text.str(), badLine);
  if (badLine != 0 || again.size() != 1 || again[0].name != record.name ||
      again[0].type != record.type || again[0].ior != record.ior) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::size_t badLine = 0;
  const auto records = MessageRouter::ParseTableFile(text, badLine);
  for (const MessageRouter::RegEntry& record : records) RequireReadBack(record);
  return 0;
}
