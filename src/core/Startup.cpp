#include "core/Startup.h"

#include <ace/OS_NS_strings.h>

#include <cstdio>
#include <memory>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "core/Router.h"
#include "logging/Log.h"
#include "platform/StopSignals.h"
#include "security/CertificateContext.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

constexpr char kHelp[] =
    "Usage: brelix-message-router [options] [-ORB... options]\n"
    "\n"
    "Runs one message router in the foreground. SIGTERM and SIGINT stop it, SIGHUP makes it\n"
    "reinitialise. Options are compared without regard to case; unknown ones are ignored.\n"
    "\n"
    "  -name NAME      the router's short name (default Router): its section in the\n"
    "                  configuration and its folder under the data root\n"
    "  -config FILE    the configuration store (default ./brelix.config)\n"
    "  -private DIR    the certificate store (default Private/ in the router's folder)\n"
    "  --help          this text\n"
    "  --version       the version\n";

bool Is(const char* argument, const char* option) {
  return ACE_OS::strcasecmp(argument, option) == 0;
}

// What the signals reach: the router, as long as there is one.
class SignalledRouter {
 public:
  template <class Function>
  void Tell(Function&& function) {
    ThreadHelper::Guard guard(mutex_);
    if (guard && alive_) function(Router::instance());
  }
  // Nothing logs after the log is closed.
  void End() {
    {
      ThreadHelper::Guard guard(mutex_);
      alive_ = false;
    }
    DestroyRouter();
    CloseLog();
  }

 private:
  ThreadHelper::Mutex mutex_;
  bool alive_ GUARDED_BY(mutex_) = true;
};

const char* ActionName(Startup::Action action) {
  switch (action) {
    case Startup::Action::Service:
      return "-service";
    case Startup::Action::Stop:
      return "-stop";
    case Startup::Action::Install:
      return "-install";
    case Startup::Action::Uninstall:
      return "-uninstall";
    default:
      return "-reinstall";
  }
}

}  // namespace

Startup::Options Startup::Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const char* const argument = argv[i];
    const char* const value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (Is(argument, "--help")) {
      options.action = Action::Help;
    } else if (Is(argument, "--version")) {
      options.action = Action::Version;
    } else if (Is(argument, "-service")) {
      options.action = Action::Service;
    } else if (Is(argument, "-stop")) {
      options.action = Action::Stop;
    } else if (Is(argument, "-install")) {
      options.action = Action::Install;
    } else if (Is(argument, "-uninstall")) {
      options.action = Action::Uninstall;
    } else if (Is(argument, "-reinstall")) {
      options.action = Action::Reinstall;
    } else if (value != nullptr && Is(argument, "-name")) {
      options.name = value;
      ++i;
    } else if (value != nullptr && Is(argument, "-config")) {
      options.config = value;
      ++i;
    } else if (value != nullptr && Is(argument, "-private")) {
      options.privateLocation = value;
      ++i;
    }
  }
  return options;
}

int Startup::run(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  switch (options.action) {
    case Action::Help:
      std::fputs(kHelp, stdout);
      return 0;
    case Action::Version:
      std::printf("brelix-message-router %s\n", BRELIX_VERSION);
      return 0;
    case Action::Run:
      return RunInConsole(options, argc, argv);
    default:
      std::fprintf(stderr, "brelix-message-router: %s is not available in this version\n",
                   ActionName(options.action));
      return 1;
  }
}

int Startup::RunInConsole(const Options& options, int argc, char** argv) {
  CertificateContext::instance().SetPrivateLocation(options.privateLocation);
  auto configuration = std::make_unique<ACE_XPlatform_Configuration>(kLocalMachine, options.config);
  std::string section(kSectionRoot);
  section.append("\\").append(options.name);
  InitializeRouter(configuration.release(), section, options.name, argc, argv);

  // Before any other thread: they inherit the blocked signals. Its limit on a stop holds to the
  // end.
  SignalledRouter signalled;
  Platform::StopSignals signals(
      [&signalled] { signalled.Tell([](Router& router) { router.Shutdown(); }); },
      [&signalled] { signalled.Tell([](Router& router) { router.RequestReload(); }); });
  try {
    const int status = RunRouter();
    signalled.End();
    return status;
  } catch (...) {
    signalled.End();
    throw;
  }
}

}  // namespace MessageRouter
