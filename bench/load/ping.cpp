// One active client: how long its calls take.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "Latencies.h"
#include "client_library/RouterConnection.h"

int main(int argc, char** argv) {
  CLI::App app("Calls a router again and again and prints the round trips, as one line of JSON.");
  std::string identity;
  ClientLibrary::ConnectionSettings settings;
  unsigned count = 5000;
  app.add_option("--identity", identity)->required();
  app.add_option("--host", settings.host);
  app.add_option("--port", settings.port);
  app.add_option("--count", count);
  CLI11_PARSE(app, argc, argv);
  try {
    ClientLibrary::RouterConnection connection(ClientLibrary::Identity::FromFolder(identity),
                                               settings);
    for (int i = 0; i < 100; ++i) connection.RouterName();
    Bench::Latencies latencies;
    for (unsigned i = 0; i < count; ++i) {
      const auto begin = Bench::SteadyClock::now();
      connection.RouterName();
      latencies.Add(Bench::MicrosecondsSince(begin));
    }
    std::printf("%s\n", latencies.Report().dump().c_str());
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_ping: %s\n", exception.what());
    return 1;
  }
}
