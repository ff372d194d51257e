#include "platform/StopSignals.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <system_error>
#include <thread>

#include "platform/Process.h"
#include "platform/linux/Descriptor.h"

namespace Platform {
namespace {

void Require(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

sigset_t OperatorSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  return set;
}

// A timer of the kernel's whose signal any thread can take: it needs no thread of its own, which
// might be what can't be had when the process hangs.
class Watchdog {
 public:
  explicit Watchdog(std::chrono::milliseconds limit) : limit_(limit) {
    struct sigaction action {};
    action.sa_handler = [](int) { ExitProcess(0); };
    Require(sigaction(SIGALRM, &action, nullptr) == 0, "watchdog");
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGALRM;
    Require(timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0, "watchdog");
  }
  ~Watchdog() { timer_delete(timer_); }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void Arm() {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit_);
    itimerspec time{};
    time.it_value.tv_sec = seconds.count();
    time.it_value.tv_nsec = std::chrono::nanoseconds(limit_ - seconds).count();
    timer_settime(timer_, 0, &time, nullptr);
  }

 private:
  std::chrono::milliseconds limit_;
  timer_t timer_{};
};

}  // namespace

struct StopSignals::State {
  State(std::function<void()> stop, std::function<void()> reload, std::chrono::milliseconds limit)
      : stop_(std::move(stop)), reload_(std::move(reload)), watchdog_(limit) {
    const sigset_t set = OperatorSignals();
    Require(pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0, "signals");
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    Require(sigaction(SIGPIPE, &ignore, nullptr) == 0, "signals");
    // A write beyond a limit on the size of files fails, and its caller is told.
    Require(sigaction(SIGXFSZ, &ignore, nullptr) == 0, "signals");
    signals_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    Require(static_cast<bool>(signals_), "signals");
    end_ = Descriptor(eventfd(0, EFD_CLOEXEC));
    Require(static_cast<bool>(end_), "signals");
    thread_ = std::thread([this] { RunOrEndProcess(); });
  }

  ~State() {
    const std::uint64_t one = 1;
    while (write(end_.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
  }

  // The rule for every thread: what leaves its body ends the process.
  void RunOrEndProcess() {
    try {
      Run();
      return;
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "The signal thread caught %s\n", exception.what());
    } catch (...) {
      std::fputs("The signal thread caught an unknown exception\n", stderr);
    }
    ExitProcess(-1);
  }

  void Run() {
    SetThreadName("signals");
    std::array<pollfd, 2> waiting{{{signals_.Get(), POLLIN, 0}, {end_.Get(), POLLIN, 0}}};
    while (true) {
      if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
      if (waiting[1].revents != 0) return;
      signalfd_siginfo info{};
      if (waiting[0].revents == 0 || read(signals_.Get(), &info, sizeof info) != sizeof info) {
        continue;
      }
      if (info.ssi_signo == SIGHUP) {
        reload_();
        continue;
      }
      if (!stopping_) watchdog_.Arm();
      stopping_ = true;
      stop_();
    }
  }

  std::function<void()> stop_;
  std::function<void()> reload_;
  Watchdog watchdog_;
  bool stopping_ = false;  // the signal thread's
  Descriptor signals_;
  Descriptor end_;
  std::thread thread_;
};

StopSignals::StopSignals(std::function<void()> stop, std::function<void()> reload,
                         std::chrono::milliseconds limit)
    : state_(std::make_unique<State>(std::move(stop), std::move(reload), limit)) {}

StopSignals::~StopSignals() = default;

}  // namespace Platform
