#pragma once

#include <filesystem>

#include "support/ScratchFolder.h"

namespace TestSupport {

// An empty folder that is the process's working folder while the object lives, with a configuration
// of its own in force for a router named "Router" whose files stand below it.
class ScratchConfiguration {
 public:
  ScratchConfiguration();
  ~ScratchConfiguration();
  ScratchConfiguration(const ScratchConfiguration&) = delete;
  ScratchConfiguration& operator=(const ScratchConfiguration&) = delete;

  const std::filesystem::path& Folder() const { return folder_.Folder(); }
  std::filesystem::path RouterFolder() const { return Folder() / "Router"; }

 private:
  ScratchFolder folder_;
  std::filesystem::path previous_;
};

}  // namespace TestSupport
