#include "routing/ClientData.h"

#include <atomic>
#include <ostream>

namespace MessageRouter {

namespace {

std::atomic<bool> verboseForm{false};

char Flag(bool value) {
  return value ? 'T' : 'F';
}

}  // namespace

void ClientData::SetVerbose(bool verbose) {
  verboseForm = verbose;
}

bool ClientData::Verbose() {
  return verboseForm;
}

std::ostream& ClientData::write(std::ostream& stream) const {
  if (Verbose()) {
    return stream << "ClientData(name=" << name << ",isLoggedOn=" << Flag(isLoggedOn)
                  << ",isRouter=" << Flag(isRouter) << ",isParent=" << Flag(isParent)
                  << ",isPassiveConsumer=" << Flag(isPassiveConsumer) << ")";
  }
  return stream << "(" << name << "," << Flag(isLoggedOn) << "," << Flag(isRouter) << ","
                << Flag(isParent) << "," << Flag(isPassiveConsumer) << ")";
}

}  // namespace MessageRouter
