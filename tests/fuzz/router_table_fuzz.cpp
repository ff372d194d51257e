// The text of the router table file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "routing/RouterTableText.h"

namespace {

// What was read without an oddity is written and read back the same.
void RequireReadBack(const std::vector<MessageRouter::RegEntry>& records) {
  const auto [again, badLine] =
      MessageRouter::ParseTableText(MessageRouter::ComposeTableText(records));
  if (badLine != 0 || again.size() != records.size()) std::abort();
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (again[i].name != records[i].name || again[i].type != records[i].type ||
        again[i].ior != records[i].ior) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  RequireReadBack(MessageRouter::ParseTableText(text).records);
  return 0;
}
