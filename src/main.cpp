#include <cstdio>
#include <exception>

#include "core/Startup.h"

int main(int argc, char** argv) {
  try {
    return MessageRouter::Startup().run(argc, argv);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "brelix-message-router: %s\n", exception.what());
    return 1;
  }
}
