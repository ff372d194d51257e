#include "delivery/GetterWorker.h"

#include <atomic>

#include "logging/Log.h"

namespace MessageRouter {

GetterWorker::~GetterWorker() {
  Stop();
}

void GetterWorker::ProcessEntry(RouterTableEntry& entry) {
  static std::atomic<bool> said{false};
  if (said.exchange(true)) return;
  LogWarning(
      "Polling is not available in this version: the envelopes that %s and other passive suppliers "
      "hold are not fetched\n",
      entry.Name().c_str());
}

}  // namespace MessageRouter
