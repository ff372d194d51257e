#include "routing/ListClients.h"

#include <ostream>
#include <utility>

namespace MessageRouter {

void ListClients::operator()(std::string name, RouterTableEntry& entry) {
  if (!entry.IsRegistered() || name != entry.Name()) return;
  ClientData client;
  client.name = std::move(name);
  client.isLoggedOn = entry.IsLoggedOn();
  client.isRouter = entry.IsRouter();
  client.isParent = entry.IsParent();
  client.isPassiveConsumer = entry.IsPassiveConsumer();
  clients_.push_back(std::move(client));
}

std::ostream& ListClients::write(std::ostream& stream) const {
  const bool verbose = ClientData::Verbose();
  if (verbose) {
    stream << "ListClients([count=" << std::dec << clients_.size() << "]";
  } else {
    stream << "([" << std::dec << clients_.size() << "]";
  }
  std::size_t index = 0;
  for (const ClientData& client : clients_) {
    stream << ",";
    if (verbose) stream << "[" << index++ << "]";
    client.write(stream);
  }
  return stream << ")";
}

}  // namespace MessageRouter
