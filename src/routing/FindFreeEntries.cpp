#include "routing/FindFreeEntries.h"

namespace MessageRouter {

void FindFreeEntries::operator()(std::string, RouterTableEntry& entry) {
  if (entry.IsRegistered()) return;
  if (entry.IsLoggedOn()) {
    ++active_;
  } else {
    free_.push_back(&entry);
  }
}

}  // namespace MessageRouter
