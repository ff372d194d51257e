#pragma once

#include <vector>

#include "routing/ClientData.h"
#include "routing/RouterTable.h"

namespace MessageRouter {

// Collects one record for each registered entry; an entry that stands under two names counts once,
// under its own.
class ListClients : public FunctionClassBase, public Streamable {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override;
  std::ostream& write(std::ostream& stream) const override;

  const std::vector<ClientData>& Clients() const { return clients_; }

 private:
  std::vector<ClientData> clients_;
};

}  // namespace MessageRouter
