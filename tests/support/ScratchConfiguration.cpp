#include "support/ScratchConfiguration.h"

#include <fstream>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "config/DataLocation.h"

namespace TestSupport {

ScratchConfiguration::ScratchConfiguration() : previous_(std::filesystem::current_path()) {
  std::filesystem::current_path(Folder());
  std::ofstream("router.config")
      << "[SOFTWARE\\Brelix\\Messaging System]\n\"UseRelativeDataLocation\"=dword:1\n";
  MessageRouter::SetConfiguration(
      new MessageRouter::ACE_XPlatform_Configuration(MessageRouter::kLocalMachine,
                                                     MessageRouter::kSharedStorePath),
      std::string(MessageRouter::kSectionRoot) + "\\Router");
  MessageRouter::SetRouterName("Router");
}

ScratchConfiguration::~ScratchConfiguration() {
  std::filesystem::current_path(previous_);
}

}  // namespace TestSupport
