#include "config/DataLocation.h"

#include <optional>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "platform/Files.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

// The store that decides where the data stands.
constexpr char kLocationStore[] = "./router.config";

std::string& Name() {
  static auto* const name = new std::string("Router");
  return *name;
}

bool UseRelativeDataLocation() {
  ACE_XPlatform_Configuration store(kLocalMachine, kLocationStore);
  if (!store.OpenSection(kSectionRoot, false)) return false;
  bool found = false;
  const std::uint32_t value = store.GetIntegerValue("UseRelativeDataLocation", found);
  return found && value != 0;
}

}  // namespace

std::string DataRoot() {
  if (!UseRelativeDataLocation()) {
    if (const std::optional<std::string> common = Platform::CommonDataFolder()) {
      return *common + "/Brelix/Orvane System/3/";
    }
  }
  return "./";
}

std::string RouterDirectory(const std::string& routerName) {
  return Platform::SlashPath(DataRoot() + routerName);
}

std::string LogDirectory(const std::string& routerName) {
  return RouterDirectory(routerName) + "/Logs/";
}

std::string ReportDirectory(const std::string& routerName) {
  return RouterDirectory(routerName) + "/NetworkReport/";
}

std::string ReportFile(const std::string& routerName) {
  return ReportDirectory(routerName) + "ReportData.xml";
}

std::string RouterTablePath(const std::string& routerName) {
  return RouterDirectory(routerName) + "/table_router.txt";
}

std::string LogicalTablePath(const std::string& routerName) {
  return RouterDirectory(routerName) + "/LogicalTable";
}

std::string EnvelopeDirectory(const std::string& routerName) {
  std::string directory = Platform::SlashPath(GetConfigString("EnvelopeDir", ""));
  if (directory.empty()) return RouterDirectory(routerName) + "/Envelopes/";
  if (directory.back() != '/') directory += '/';
  return directory;
}

const std::string& RouterName() {
  return Name();
}

void SetRouterName(const std::string& name) {
  Name() = name;
}

}  // namespace MessageRouter
