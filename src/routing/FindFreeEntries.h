#pragma once

#include <cstddef>
#include <vector>

#include "routing/RouterTable.h"

namespace MessageRouter {

// Of the entries that nobody has registered, counts those in use and collects the others.
class FindFreeEntries : public FunctionClassBase {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override;

  std::size_t Active() const { return active_; }
  // In the order of their names.
  const std::vector<RouterTableEntry*>& Free() const { return free_; }

 private:
  std::size_t active_ = 0;
  std::vector<RouterTableEntry*> free_;
};

}  // namespace MessageRouter
