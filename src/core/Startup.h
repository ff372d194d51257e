#pragma once

#include <string>
#include <vector>

namespace MessageRouter {

// The entry of the process: its command line, and the way from there to RunRouter. Options are
// compared without regard to case; an unknown one is ignored, and so is one that needs a value and
// stands last: the broker's own "-ORB" options pass by this way.
class Startup {
 public:
  enum class Action { Run, Service, Stop, Install, Uninstall, Reinstall, Help, Version };

  struct Options {
    Action action = Action::Run;  // the last one on the line wins
    std::string name = "Router";
    std::string config = "./brelix.config";
    std::string privateLocation;
  };

  static Options Parse(int argc, char** argv);

  // The exit status of the process.
  int run(int argc, char** argv);

 private:
  int RunInConsole(const Options& options, int argc, char** argv);
};

}  // namespace MessageRouter
