// A client that takes pushed envelopes and counts them, and tells how old the stamped ones were.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "Latencies.h"
#include "client_library/Failure.h"
#include "client_library/RouterConnection.h"

namespace {

using Bench::SteadyClock;

class CountingSink : public ClientLibrary::EnvelopeSink {
 public:
  // `arrivals`: a named pipe that gets a byte for each message; none if empty.
  CountingSink(unsigned wanted, const std::string& arrivals) : wanted_(wanted) {
    if (arrivals.empty()) return;
    arrivals_.open(arrivals, std::ios::in | std::ios::out);
    if (!arrivals_.is_open()) throw std::runtime_error("can't open " + arrivals);
  }

  bool Take(const BrelixMessaging::Envelope& envelope) override {
    const char* text = "";
    envelope.client_info.custom_data >>= text;
    const auto age = Bench::AgeOfStamp(text);
    const std::lock_guard<std::mutex> guard(mutex_);
    if (age) latencies_.Add(*age);
    if (count_ == 0) first_ = SteadyClock::now();
    if (++count_ == wanted_) {
      last_ = SteadyClock::now();
      done_.notify_all();
    }
    if (arrivals_.is_open()) arrivals_.put('.').flush();
    return true;
  }
  bool Wait(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> guard(mutex_);
    return done_.wait_for(guard, limit, [this] { return count_ >= wanted_; });
  }
  unsigned Count() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return count_;
  }
  double Seconds() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::chrono::duration<double>(last_ - first_).count();
  }
  nlohmann::json Report() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return latencies_.Report();
  }

 private:
  const unsigned wanted_;
  std::mutex mutex_;
  std::condition_variable done_;
  unsigned count_ = 0;
  SteadyClock::time_point first_;
  SteadyClock::time_point last_;
  Bench::Latencies latencies_;
  std::fstream arrivals_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Takes pushed envelopes and prints how fast they came, as one line of JSON.");
  std::string identity;
  ClientLibrary::ConnectionSettings settings;
  unsigned count = 10000;
  unsigned limit = 120;
  std::string arrivals;
  bool registerOnly = false;
  app.add_option("--identity", identity)->required();
  app.add_option("--host", settings.host);
  app.add_option("--port", settings.port);
  app.add_option("--count", count);
  app.add_option("--limit", limit, "seconds");
  app.add_option("--arrivals", arrivals, "a named pipe, for bench_sender");
  app.add_flag("--register-only", registerOnly);
  CLI11_PARSE(app, argc, argv);
  settings.server = true;
  try {
    CountingSink sink(count, arrivals);
    ClientLibrary::RouterConnection connection(ClientLibrary::Identity::FromFolder(identity),
                                               settings);
    try {
      connection.Register();
    } catch (const ClientLibrary::Failure& failure) {
      if (failure.Exception() != "AlreadyRegistered") throw;
    }
    if (registerOnly) return 0;
    connection.LogonPush(sink);
    std::printf("ready\n");
    std::fflush(stdout);
    const bool all = sink.Wait(std::chrono::seconds(limit));
    const nlohmann::json result = {{"count", sink.Count()},
                                   {"complete", all},
                                   {"seconds", all ? sink.Seconds() : 0.0},
                                   {"per_second", all ? (count - 1) / sink.Seconds() : 0.0},
                                   {"processor_us", Bench::ProcessorMicroseconds() / count},
                                   {"stamped", sink.Report()}};
    std::printf("%s\n", result.dump().c_str());
    std::fflush(stdout);
    connection.CloseDoor();
    return all ? 0 : 1;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_receiver: %s\n", exception.what());
    return 1;
  }
}
