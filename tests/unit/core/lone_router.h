#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "core/Router.h"
#include "logging/Log.h"
#include "platform/Network.h"
#include "support/ScratchConfiguration.h"
#include "support/ScratchFolder.h"
#include "support/TestCertificates.h"

namespace MessageRouter {

// A router in a scratch folder whose store has a CA and nothing else, on a host that the test
// plays.
class LoneRouter : public testing::Test {
 protected:
  LoneRouter() {
    std::filesystem::create_directories(configuration_.RouterFolder() / "Private");
    std::ofstream(configuration_.RouterFolder() / "Private" / "ca.pem")
        << TestSupport::TestCa().CaPem();
    SetConfigBool("LogConsole", false);
    SetConfigInt("LogLevel", 2);
    InitializeRouter(new ACE_XPlatform_Configuration(kLocalMachine, kSharedStorePath),
                     std::string(kSectionRoot) + "\\Router", "Router", 3, argv_);
  }
  ~LoneRouter() override {
    DestroyRouter();
    CloseLog();
    Platform::SetHostAddressSource(nullptr);
  }

  std::string LogText() const {
    std::string text;
    for (const auto& file :
         std::filesystem::directory_iterator(configuration_.RouterFolder() / "Logs")) {
      text += TestSupport::TextOf(file.path());
    }
    return text;
  }
  static std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  TestSupport::ScratchConfiguration configuration_;
  // The same for all routers of a process: the ORB keeps the address of its first endpoint.
  std::string arguments_[3] = {"router", "-ORBendPoint", "giop:ssl:127.0.0.1:"};
  char* argv_[4] = {arguments_[0].data(), arguments_[1].data(), arguments_[2].data(), nullptr};
};

// The same with a certificate, so that it starts.
class CertifiedRouter : public LoneRouter {
 protected:
  CertifiedRouter() {
    const std::filesystem::path folder = configuration_.RouterFolder() / "Private";
    const TestSupport::Issued own = Ca().Issue("router1", {1});
    std::ofstream(folder / "ca.pem") << Ca().CaPem();
    std::ofstream(folder / "certificate.pem") << own.certificatePem;
    std::ofstream(folder / "key.pem") << own.keyPem;
    SetConfigInt("IORSenderPort", 0);
    SetConfigInt("CheckNetworkIfInterval", 3600);
    Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
  }

  static TestSupport::TestCa& Ca() {
    static TestSupport::TestCa ca;
    return ca;
  }
};

}  // namespace MessageRouter
