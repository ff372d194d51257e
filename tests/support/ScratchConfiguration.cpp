#include "support/ScratchConfiguration.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "config/DataLocation.h"

namespace TestSupport {

ScratchConfiguration::ScratchConfiguration() : previous_(std::filesystem::current_path()) {
  std::string pattern = (std::filesystem::temp_directory_path() / "brelix-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no scratch folder");
  folder_ = pattern;
  std::filesystem::current_path(folder_);
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
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

}  // namespace TestSupport
