#include "client/Receive.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>

#include "client_library/EnvelopeText.h"
#include "client_library/Failure.h"
#include "client_library/LogonKeeper.h"
#include "client_library/RouterConnection.h"
#include "platform/StopSignals.h"
#include "threads/Mutex.h"

using ClientLibrary::Failure;
using ClientLibrary::Outcome;
using std::chrono::milliseconds;
using SteadyTime = Platform::Clock::SteadyTime;

namespace {

constexpr milliseconds kPollPause{500};

SteadyTime Now() {
  return Platform::Clock::Instance().SteadyNow();
}

milliseconds FromSeconds(double seconds) {
  return milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

// Where pushed and fetched envelopes come together, and what ends the command.
class Collector : public ClientLibrary::EnvelopeSink {
 public:
  Collector(Output& output, bool json, std::uint64_t limit)
      : output_(output), json_(json), limit_(limit) {}

  // Under the lock until the envelope is written: its order in the output is that of the calls,
  // and after the last one that was asked for the router keeps the rest.
  bool Take(const BrelixMessaging::Envelope& envelope) override {
    ThreadHelper::Guard guard(mutex_);
    if (!guard || ended_) return false;
    const bool written = output_.Write(json_ ? ClientLibrary::AsJsonLine(envelope)
                                             : ClientLibrary::AsText(envelope));
    if (!written) {
      writeFailed_ = true;
      ended_ = true;
    } else {
      ++taken_;
      if (limit_ != 0 && taken_ == limit_) ended_ = true;
    }
    if (ended_) changed_.Broadcast();
    return written;
  }

  void End() {
    ThreadHelper::Guard guard(mutex_);
    ended_ = true;
    changed_.Broadcast();
  }
  void Interrupt() {
    ThreadHelper::Guard guard(mutex_);
    interrupted_ = true;
    ended_ = true;
    changed_.Broadcast();
  }

  // Something waits at the router.
  void Wake() {
    ThreadHelper::Guard guard(mutex_);
    woken_ = true;
    changed_.Broadcast();
  }

  // Waits for the time to pass, or for a wake-up. True if the command is to end.
  bool WaitFor(milliseconds time) {
    const SteadyTime end = Now() + time;
    ThreadHelper::Guard guard(mutex_);
    while (!ended_ && !woken_) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Now());
      if (left.count() <= 0) break;
      changed_.WaitFor(left);
    }
    // Who was woken fetches now, after whatever the wake-up was about.
    woken_ = false;
    return ended_;
  }

  std::uint64_t Taken() const {
    ThreadHelper::Guard guard(mutex_);
    return taken_;
  }
  bool WriteFailed() const {
    ThreadHelper::Guard guard(mutex_);
    return writeFailed_;
  }
  bool Interrupted() const {
    ThreadHelper::Guard guard(mutex_);
    return interrupted_;
  }

 private:
  Output& output_;
  const bool json_;
  const std::uint64_t limit_;
  mutable ThreadHelper::Mutex mutex_;
  ThreadHelper::Condition changed_{mutex_};
  std::uint64_t taken_ GUARDED_BY(mutex_) = 0;
  bool ended_ GUARDED_BY(mutex_) = false;
  bool woken_ GUARDED_BY(mutex_) = false;
  bool writeFailed_ GUARDED_BY(mutex_) = false;
  bool interrupted_ GUARDED_BY(mutex_) = false;
};

class PushLink : public ClientLibrary::LogonKeeper::Link {
 public:
  PushLink(ClientLibrary::RouterConnection& router, Collector& collector)
      : router_(router), collector_(collector) {}
  void Logon() override {
    router_.Open();
    router_.LogonPush(collector_);
  }
  void CheckLogon() override { router_.Heartbeat(); }

 private:
  ClientLibrary::RouterConnection& router_;
  Collector& collector_;
};

// Checking the logon and fetching what waits are one thing here.
class PullLink : public ClientLibrary::LogonKeeper::Link {
 public:
  PullLink(ClientLibrary::RouterConnection& router, Collector& collector, bool notify,
           std::optional<SteadyTime> deadline)
      : router_(router), collector_(collector), notify_(notify), deadline_(deadline) {}
  void Logon() override {
    router_.Open();
    router_.LogonPull(notify_ ? [&collector = collector_] { collector.Wake(); }
                              : std::function<void()>());
    CheckLogon();
  }
  void CheckLogon() override {
    while (!collector_.WaitFor(milliseconds(0)) && (!deadline_ || Now() < *deadline_)) {
      const auto envelope = router_.Get();
      if (envelope == nullptr || !collector_.Take(*envelope)) return;
      router_.Acknowledge(*envelope);
    }
  }

 private:
  ClientLibrary::RouterConnection& router_;
  Collector& collector_;
  const bool notify_;
  const std::optional<SteadyTime> deadline_;  // however much there is to fetch
};

void Run(ClientLibrary::LogonKeeper& keeper, Collector& collector,
         std::optional<SteadyTime> deadline) {
  for (;;) {
    milliseconds pause = keeper.Step();
    if (deadline) {
      const auto left = std::chrono::duration_cast<milliseconds>(*deadline - Now());
      if (left.count() <= 0) return;
      pause = std::min(pause, left);
    }
    if (collector.WaitFor(pause)) return;
  }
}

}  // namespace

int Receive(const Options& options, const ClientLibrary::Identity& identity, Output& output) {
  Collector collector(output, options.json, options.count);
  const Platform::StopSignals signals([&collector] { collector.Interrupt(); }, [] {});

  ClientLibrary::ConnectionSettings settings;
  settings.host = options.host;
  settings.port = options.port;
  settings.callLimit = FromSeconds(options.timeout);
  settings.server = !options.pull || options.notify;
  ClientLibrary::RouterConnection router(identity, settings);
  std::optional<SteadyTime> deadline;
  if (options.receiveLimit > 0) deadline = Now() + FromSeconds(options.receiveLimit);
  PushLink push(router, collector);
  PullLink pull(router, collector, options.notify, deadline);
  ClientLibrary::LogonKeeper keeper(
      options.pull ? static_cast<ClientLibrary::LogonKeeper::Link&>(pull) : push,
      settings.server ? FromSeconds(options.checkInterval) : kPollPause,
      [](const std::string& text) { std::fprintf(stderr, "brelix-client: %s\n", text.c_str()); });
  Run(keeper, collector, deadline);

  collector.End();
  if (keeper.LoggedOn()) {
    try {
      router.Logoff();
    } catch (const Failure&) {
      // The logon is gone already: the router found us refusing, or ended.
    }
  }
  router.CloseDoor();
  if (collector.WriteFailed()) {
    throw Failure(Outcome::Failed, "cannot write to standard output");
  }
  const std::uint64_t taken = collector.Taken();
  if (options.count != 0 && taken == options.count) return 0;
  if (collector.Interrupted()) {
    if (options.command == Command::Listen) return 0;
    throw Failure(Outcome::Failed, "interrupted");
  }
  if (options.count == 0 && taken > 0) return 0;
  throw Failure(Outcome::TimedOut, options.count == 0
                                       ? "nothing received in time"
                                       : "received " + std::to_string(taken) + " of " +
                                             std::to_string(options.count) + " in time");
}
