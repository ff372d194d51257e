#include <cerrno>
#include <memory>

#include "config/DataLocation.h"
#include "core/Router.h"
#include "core/SecondOfOwn.h"
#include "logging/Log.h"
#include "platform/Files.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

void MakeDirectory(const std::string& path, const char* complaint) {
  const int error = Platform::MakeFolders(path);
  if (error != 0 && error != EEXIST) LogError("%s", complaint);
}

void OnPureVirtualCall() {
  LogError("Pure virtual function call detected");
  Platform::ExitProcess(0);
}

}  // namespace

int RunRouter() {
  Router& router = Router::instance();
  const std::string& name = router.ProgramName();
  AwaitSecondOfOwn({EnvelopeDirectory(name), LogDirectory(name)}, &Platform::SleepMilliseconds);
  MakeDirectory(RouterDirectory(name), "Failed to create router directory\n");
  router.SetLogDirectory(LogDirectory(name));
  MakeDirectory(LogDirectory(name), "Failed to create log directory\n");
  MakeDirectory(ReportDirectory(name), "Failed to create report directory\n");
  router.SetStatusReporter(std::make_unique<StatusReporting::StatusReporter>(ReportFile(name)));
  Platform::SetPureCallHandler(&OnPureVirtualCall);
  return router.Start();
}

}  // namespace MessageRouter
