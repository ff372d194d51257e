#include "platform/StopSignals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "platform/Process.h"
#include "platform/linux/Descriptor.h"

namespace Platform {
namespace {

using std::chrono::milliseconds;

// Signals change a process for good, so each test has one of its own. The body runs there and
// returns its status.
template <class Body>
int InAChild(Body&& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Tells this process that a child has run its last words.
class LastWords {
 public:
  LastWords() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    readEnd_ = Descriptor(ends[0]);
    writeEnd_ = Descriptor(ends[1]);
    writeNumber_ = ends[1];
  }
  // In the child.
  void Install() const {
    SetLastWords([] {
      if (write(writeNumber_, "x", 1) != 1) _exit(9);
    });
  }
  // When the child has ended.
  bool WereSaid() {
    writeEnd_ = Descriptor();
    char byte = 0;
    return read(readEnd_.Get(), &byte, 1) == 1;
  }

 private:
  static inline int writeNumber_ = -1;
  Descriptor readEnd_;
  Descriptor writeEnd_;
};

class StopSignal : public ::testing::TestWithParam<int> {};

TEST_P(StopSignal, AsksForAStop) {
  const int signal = GetParam();
  EXPECT_EQ(InAChild([signal] {
              std::binary_semaphore stopped{0};
              const StopSignals signals([&] { stopped.release(); }, [] { _exit(9); });
              kill(getpid(), signal);
              stopped.acquire();
              return 5;
            }),
            5);
}

INSTANTIATE_TEST_SUITE_P(Table, StopSignal, ::testing::Values(SIGTERM, SIGINT));

TEST(ReloadSignal, AsksForAReinitialisationEachTime) {
  EXPECT_EQ(InAChild([] {
              std::counting_semaphore reloaded{0};
              const StopSignals signals([] { _exit(9); }, [&] { reloaded.release(); });
              for (int i = 0; i < 3; ++i) {
                kill(getpid(), SIGHUP);
                reloaded.acquire();
              }
              return 5;
            }),
            5);
}

TEST(BrokenPipe, IsIgnored) {
  EXPECT_EQ(InAChild([] {
              const StopSignals signals([] {}, [] {});
              return std::raise(SIGPIPE) == 0 ? 5 : 6;
            }),
            5);
}

TEST(SignalThread, TakesSignalsThatOtherThreadsDontSee) {
  EXPECT_EQ(InAChild([] {
              std::atomic<std::uint32_t> taker{0};
              std::binary_semaphore stopped{0};
              const StopSignals signals(
                  [&] {
                    taker = ThreadId();
                    stopped.release();
                  },
                  [] {});
              std::atomic<bool> end{false};
              std::thread other([&end] {
                while (!end) std::this_thread::yield();
              });
              const std::uint32_t otherId = ThreadId();
              kill(getpid(), SIGTERM);
              stopped.acquire();
              end = true;
              other.join();
              return taker != 0 && taker != otherId ? 5 : 6;
            }),
            5);
}

class ThrowingFunction : public ::testing::TestWithParam<int> {};

TEST_P(ThrowingFunction, EndsTheProcessWithStatus255AfterTheLastWords) {
  const int signal = GetParam();
  const auto fail = [signal] {
    if (signal == SIGTERM) throw std::runtime_error("broken");
    throw 1;
  };
  LastWords words;
  EXPECT_EQ(InAChild([&] {
              words.Install();
              const StopSignals signals(fail, fail);
              kill(getpid(), signal);
              while (true) pause();
              return 5;
            }),
            255);
  EXPECT_TRUE(words.WereSaid());
}

INSTANTIATE_TEST_SUITE_P(Table, ThrowingFunction, ::testing::Values(SIGTERM, SIGHUP));

TEST(Watchdog, EndsAHangingProcessWithStatusZero) {
  EXPECT_EQ(InAChild([] {
              const StopSignals signals([] {}, [] {}, milliseconds(50));
              kill(getpid(), SIGTERM);
              while (true) pause();
              return 5;
            }),
            0);
}

TEST(Watchdog, EndsAProcessWhoseStopFunctionHangs) {
  EXPECT_EQ(InAChild([] {
              const StopSignals signals(
                  [] {
                    while (true) pause();
                  },
                  [] {}, milliseconds(50));
              kill(getpid(), SIGTERM);
              while (true) pause();
              return 5;
            }),
            0);
}

TEST(Watchdog, IsArmedByTheFirstStopAlone) {
  EXPECT_EQ(InAChild([] {
              std::counting_semaphore stopped{0};
              const StopSignals signals([&] { stopped.release(); }, [] {}, milliseconds(200));
              const auto start = std::chrono::steady_clock::now();
              // Ever new stops would move the end further away if each of them armed it.
              while (std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
                kill(getpid(), SIGTERM);
                stopped.acquire();
              }
              return 5;
            }),
            0);
}

TEST(Watchdog, IsNotArmedByAReload) {
  EXPECT_EQ(InAChild([] {
              std::binary_semaphore reloaded{0};
              const StopSignals signals([] {}, [&] { reloaded.release(); }, milliseconds(1));
              kill(getpid(), SIGHUP);
              reloaded.acquire();
              poll(nullptr, 0, 20);
              return 5;
            }),
            5);
}

TEST(Watchdog, RunsTheLastWords) {
  LastWords words;
  EXPECT_EQ(InAChild([&words] {
              words.Install();
              const StopSignals signals([] {}, [] {}, milliseconds(1));
              kill(getpid(), SIGTERM);
              while (true) pause();
              return 5;
            }),
            0);
  EXPECT_TRUE(words.WereSaid());
}

TEST(StopSignals, AfterTheirDestructionASecondStopDoesNotCutTheEndShort) {
  EXPECT_EQ(InAChild([] {
              {
                std::binary_semaphore stopped{0};
                const StopSignals signals([&] { stopped.release(); }, [] {}, milliseconds(1000));
                kill(getpid(), SIGTERM);
                stopped.acquire();
              }
              kill(getpid(), SIGTERM);
              kill(getpid(), SIGINT);
              return 5;
            }),
            5);
}

}  // namespace
}  // namespace Platform
