// One active client: how long its calls take.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

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
    std::vector<double> microseconds;
    for (unsigned i = 0; i < count; ++i) {
      const auto begin = std::chrono::steady_clock::now();
      connection.RouterName();
      microseconds.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
              .count());
    }
    std::sort(microseconds.begin(), microseconds.end());
    const nlohmann::json result = {{"count", count},
                                   {"median_us", microseconds[count / 2]},
                                   {"p99_us", microseconds[count * 99 / 100]}};
    std::printf("%s\n", result.dump().c_str());
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_ping: %s\n", exception.what());
    return 1;
  }
}
