#include "threads/ThreadHelper.h"

#include <ace/Log_Msg.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <semaphore>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "logging/Log.h"
#include "platform/Process.h"
#include "support/LogCapture.h"

namespace ThreadHelper {

// Outside the anonymous namespace, so that its name is short in the log.
class TestThread : public StoppableThreadHelper {
 public:
  explicit TestThread(std::function<void(TestThread&)> body) : body_(std::move(body)) {}
  ~TestThread() override { Stop(); }

  void Process() override { body_(*this); }

 private:
  std::function<void(TestThread&)> body_;
};

class TestException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace {

constexpr unsigned kTrace = 2;

std::string TextOf(const MessageRouter::Streamable& object) {
  std::ostringstream stream;
  stream << object;
  return stream.str();
}

TEST(Thread, RunsProcessOnAThreadOfItsOwn) {
  std::uint32_t id = 0;
  TestThread thread([&](TestThread&) { id = Platform::ThreadId(); });
  thread.Start();
  EXPECT_EQ(thread.Join(), 0);
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, Platform::ThreadId());
}

TEST(Thread, BearsTheNameOfItsClass) {
  std::string name;
  TestThread thread([&](TestThread&) {
    std::ifstream stream("/proc/thread-self/comm");
    std::getline(stream, name);
  });
  thread.Start();
  thread.Join();
  EXPECT_EQ(name, "TestThread");
}

TEST(Thread, LogsItsStartWithItsClass) {
  TestSupport::LogCapture log;
  TestThread thread([](TestThread&) {});
  thread.Start();
  thread.Join();
  EXPECT_TRUE(
      log.Has(kTrace, "+++ ThreadHelper::TestThread derived from BasicThreadHelper: starting.\n"));
}

TEST(Thread, StartOfARunningOneThrowsAndLeavesItAlone) {
  std::binary_semaphore go{0};
  std::atomic<int> runs{0};
  TestThread thread([&](TestThread&) {
    go.acquire();
    ++runs;
  });
  thread.Start();
  try {
    thread.Start();
    FAIL();
  } catch (const std::runtime_error& exception) {
    EXPECT_STREQ(exception.what(), "BasicThreadHelper is already running");
  }
  go.release();
  EXPECT_EQ(thread.Join(), 0);
  EXPECT_EQ(runs, 1);
}

TEST(Thread, StartOfAFinishedOneThrowsUntilItIsJoined) {
  std::binary_semaphore finished{0};
  TestThread thread([&](TestThread&) { finished.release(); });
  thread.Start();
  finished.acquire();
  EXPECT_THROW(thread.Start(), std::runtime_error);
  thread.Join();
  EXPECT_NO_THROW(thread.Start());
}

TEST(Thread, JoinOfAnIdleOneIsZeroAtOnce) {
  TestThread thread([](TestThread&) {});
  EXPECT_EQ(thread.Join(), 0);
}

TEST(Thread, PrintsItsNumberWhichIsZeroWhileIdle) {
  std::string running;
  TestThread thread([&](TestThread& self) {
    running = TextOf(self);
    EXPECT_EQ(running, "BasicThreadHelper(m_thread=" + std::to_string(Platform::ThreadId()) +
                           ")StoppableThreadHelper:(m_terminate=0)");
  });
  EXPECT_EQ(TextOf(thread), "BasicThreadHelper(m_thread=0)StoppableThreadHelper:(m_terminate=0)");
  thread.Start();
  thread.Join();
  EXPECT_NE(running, TextOf(thread));
  thread.RequestStop();
  EXPECT_EQ(TextOf(thread), "BasicThreadHelper(m_thread=0)StoppableThreadHelper:(m_terminate=1)");
}

TEST(Thread, IsNotTerminatedUntilItIsAskedToStop) {
  TestThread thread([](TestThread&) {});
  EXPECT_FALSE(thread.IsTerminated());
  thread.RequestStop();
  EXPECT_TRUE(thread.IsTerminated());
}

TEST(Thread, StopEndsAWaitWithoutLimit) {
  std::binary_semaphore waiting{0};
  bool result = false;
  TestThread thread([&](TestThread& self) {
    waiting.release();
    // The stop may come before the wait.
    do {
      result = self.Wait(0, 0);
    } while (!self.IsTerminated());
  });
  thread.Start();
  waiting.acquire();
  thread.Stop();
  EXPECT_TRUE(result);
}

TEST(Thread, CanBeStartedAgainAfterStop) {
  std::atomic<int> runs{0};
  TestThread thread([&](TestThread& self) {
    ++runs;
    while (!self.IsTerminated()) self.Wait(0, 0);
  });
  for (int i = 1; i <= 3; ++i) {
    thread.Start();
    thread.Stop();
    EXPECT_FALSE(thread.IsTerminated());
    EXPECT_EQ(runs, i);
  }
}

TEST(Thread, StopOfAnIdleOneIsHarmless) {
  TestThread thread([](TestThread&) {});
  thread.Stop();
  EXPECT_FALSE(thread.IsTerminated());
}

TEST(Thread, WaitIsTrueAtOnceWhenItIsToStop) {
  TestThread thread([](TestThread&) {});
  thread.RequestStop();
  EXPECT_TRUE(thread.Wait(3600, 0));
}

TEST(Thread, WaitThatTimesOutIsFalseWithEtime) {
  TestThread thread([](TestThread&) {});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(thread.Wait(0, 20));
  EXPECT_EQ(errno, ETIME);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(Thread, SignalEndsAWaitWithoutStopping) {
  std::atomic<bool> woken{false};
  TestThread thread([&](TestThread& self) {
    self.Wait(0, 0);
    EXPECT_FALSE(self.IsTerminated());
    woken = true;
  });
  thread.Start();
  while (!woken) {
    thread.Signal();
    std::this_thread::yield();
  }
  thread.Join();
}

TEST(Thread, ALockThatCantBeTakenMakesOperationsNothing) {
  TestThread thread([](TestThread&) {});
  FailNextLocks(1);
  thread.RequestStop();
  EXPECT_FALSE(thread.IsTerminated());
  thread.RequestStop();
  FailNextLocks(1);
  EXPECT_FALSE(thread.IsTerminated());
  FailNextLocks(1);
  EXPECT_FALSE(thread.Wait(0, 0));
  FailNextLocks(1);
  thread.Signal();
}

// What ends the process, with its last lines on standard error.
class ThreadDeathTest : public ::testing::Test {
 protected:
  static void Run(std::function<void(TestThread&)> body) {
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR);
    TestThread thread(std::move(body));
    thread.Start();
    thread.Join();
  }
};

const auto kLost = ::testing::ExitedWithCode(255);

TEST_F(ThreadDeathTest, StandardExceptionEndsTheProcessWithItsClassAndText) {
  EXPECT_EXIT(Run([](TestThread&) { throw TestException("it broke"); }), kLost,
              "ThreadHelper::TestThread derived from BasicThreadHelper: Caught "
              "ThreadHelper::TestException derived from std::exception: ''it broke''");
}

TEST_F(ThreadDeathTest, AnyOtherExceptionEndsTheProcess) {
  EXPECT_EXIT(Run([](TestThread&) { throw 5; }), kLost,
              "ThreadHelper::TestThread derived from BasicThreadHelper: Caught unknown exception");
}

TEST_F(ThreadDeathTest, AnotherFoldersExceptionIsReportedByThatFolder) {
  EXPECT_EXIT(
      {
        SetUnknownExceptionReporter([](const char* prefix) {
          try {
            throw;
          } catch (int number) {
            MessageRouter::LogError("%snumber %d\n", prefix, number);
            return true;
          } catch (...) {
            return false;
          }
        });
        Run([](TestThread&) { throw 5; });
      },
      kLost, "ThreadHelper::TestThread derived from number 5");
}

TEST_F(ThreadDeathTest, AnExceptionThatNoFolderKnowsIsUnknown) {
  EXPECT_EXIT(
      {
        SetUnknownExceptionReporter([](const char*) { return false; });
        Run([](TestThread&) { throw 5; });
      },
      kLost, "Caught unknown exception");
}

TEST_F(ThreadDeathTest, JoiningItselfEndsTheProcess) {
  EXPECT_EXIT(Run([](TestThread& self) { self.Join(); }), kLost, "a thread can't join itself");
}

TEST_F(ThreadDeathTest, DestructionWhileTheThreadIsAttachedEndsTheProcess) {
  class Forgetful : public BasicThreadHelper {
   public:
    void Process() override { entered = true; }
    std::atomic<bool> entered{false};
  };
  EXPECT_EXIT(
      {
        ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR);
        Forgetful thread;
        thread.Start();
        while (!thread.entered) std::this_thread::yield();
      },
      kLost, "destroyed while its thread is attached");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
// The sanitizers need the address space that this test takes away.
void StartWithoutMemory() {
  TestThread thread([](TestThread&) {});
  rlimit none{};
  setrlimit(RLIMIT_AS, &none);
  std::string text;
  try {
    thread.Start();
  } catch (const std::runtime_error& exception) {
    text = exception.what();
  }
  std::fprintf(stderr, "%s; %s\n", text.c_str(), TextOf(thread).c_str());
  Platform::ExitProcess(7);
}

TEST_F(ThreadDeathTest, AThreadThatCantBeStartedThrowsAndLeavesTheObjectIdle) {
  // A process of its own: a fork has the stacks of threads that have ended, and needs no memory.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(StartWithoutMemory(), ::testing::ExitedWithCode(7),
              "BasicThreadHelper failed to start thread; .*m_thread=0");
}
#endif

}  // namespace
}  // namespace ThreadHelper
