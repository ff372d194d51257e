#pragma once

#include <string>

#include "logging/Streamable.h"

namespace MessageRouter {

// What a list of clients tells of one registered entry.
class ClientData : public Streamable {
 public:
  // Whether ClientData and ListClients write their long form. For the whole process; off at first.
  static void SetVerbose(bool verbose);
  static bool Verbose();

  std::ostream& write(std::ostream& stream) const override;

  std::string name;
  bool isLoggedOn = false;
  bool isRouter = false;
  bool isParent = false;
  bool isPassiveConsumer = false;
};

}  // namespace MessageRouter
