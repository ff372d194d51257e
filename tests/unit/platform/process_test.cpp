#include "platform/Process.h"

#include <cxxabi.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/linux/CommonDataFolder.h"
#include "support/FakeClock.h"

namespace Platform {
namespace {

TEST(ExitProcessDeathTest, EndsWithTheStatusCutToEightBits) {
  EXPECT_EXIT(ExitProcess(-1), ::testing::ExitedWithCode(255), "");
  EXPECT_EXIT(ExitProcess(3), ::testing::ExitedWithCode(3), "");
}

// What the end of a thread has done so far, in order.
std::vector<std::string>* ends = nullptr;

struct ThreadLocal {
  ~ThreadLocal() { ends->emplace_back("thread-local object"); }
};

TEST(ThreadEnd, ComesAfterWhatTheThreadAndOthersKeptForIt) {
  std::vector<std::string> seen;
  ends = &seen;
  const auto note = [](void* what) { ends->emplace_back(static_cast<const char*>(what)); };
  char before[] = "made before";
  char after[] = "made after";
  pthread_key_t keys[2];
  ASSERT_EQ(pthread_key_create(&keys[0], note), 0);
  std::thread([&] {
    EXPECT_EQ(pthread_setspecific(keys[0], before), 0);
    EXPECT_TRUE(RunAtThreadEnd([] { ends->emplace_back("action"); }));
    EXPECT_EQ(pthread_key_create(&keys[1], note), 0);
    EXPECT_EQ(pthread_setspecific(keys[1], after), 0);
    thread_local ThreadLocal object;
    static_cast<void>(object);
  }).join();
  for (const pthread_key_t key : keys) pthread_key_delete(key);
  ASSERT_EQ(seen.size(), 4U);
  EXPECT_EQ(seen.front(), "thread-local object");
  EXPECT_EQ(seen.back(), "action");
}

TEST(ThreadEnd, RunsTheActionOfEachThreadOnce) {
  static std::atomic<int> runs{0};
  runs = 0;
  for (int i = 0; i < 3; ++i) {
    std::thread([] { RunAtThreadEnd([] { ++runs; }); }).join();
  }
  std::thread([] {}).join();
  EXPECT_EQ(runs, 3);
}

TEST(ExitProcessDeathTest, RunsTheLastWordsAndNoDestructors) {
  struct Loud {
    ~Loud() { std::fputs("destructor\n", stderr); }
  };
  EXPECT_EXIT(
      {
        static Loud loud;
        SetLastWords([] { std::fputs("last words\n", stderr); });
        ExitProcess(0);
      },
      ::testing::ExitedWithCode(0), "^last words\n$");
}

// What a compiler puts where a virtual function is missing.
void CallMissingFunction() {
  __cxxabiv1::__cxa_pure_virtual();
}

TEST(PureCallDeathTest, ReachesTheHandler) {
  EXPECT_EXIT(
      {
        SetPureCallHandler([] {
          std::fputs("handled\n", stderr);
          ExitProcess(0);
        });
        CallMissingFunction();
      },
      ::testing::ExitedWithCode(0), "handled");
}

TEST(PureCallDeathTest, WithoutAHandlerEndsAsTheRuntimeDoes) {
  EXPECT_DEATH(CallMissingFunction(), "pure virtual method called");
}

TEST(ThreadNumber, IsTheKernels) {
  EXPECT_EQ(ThreadId(), static_cast<std::uint32_t>(gettid()));
  EXPECT_EQ(ProcessId(), static_cast<std::uint32_t>(getpid()));
  std::uint32_t other = 0;
  std::thread([&] { other = ThreadId(); }).join();
  EXPECT_NE(other, ThreadId());
}

TEST(ThreadNumber, OfAForkedChildIsItsOwn) {
  ThreadId();
  const pid_t child = fork();
  if (child == 0) _exit(ThreadId() == static_cast<std::uint32_t>(getpid()) ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(ThreadName, IsCutToWhatTheKernelKeeps) {
  std::string name;
  std::thread([&name] {
    SetThreadName("a name that is long");
    std::ifstream stream("/proc/thread-self/comm");
    std::getline(stream, name);
  }).join();
  EXPECT_EQ(name, "a name that is ");
}

TEST(Affinity, CanBeSetToAProcessorOfTheMaskForAllThreads) {
  int error = 0;
  const auto before = AffinityMask(&error);
  ASSERT_TRUE(before.has_value());
  ASSERT_NE(*before, 0u);
  unsigned cpu = 0;
  while ((*before >> cpu & 1) == 0) ++cpu;
  EXPECT_EXIT(
      { ExitProcess(SetAffinity(cpu, &error) && *AffinityMask(nullptr) == 1ULL << cpu ? 0 : 1); },
      ::testing::ExitedWithCode(0), "");
}

TEST(Affinity, ToAProcessorThatIsNotThereFails) {
  int error = 0;
  EXPECT_FALSE(SetAffinity(1000, &error));
  EXPECT_EQ(error, EINVAL);
}

TEST(DescriptorLimit, IsRaisedToTheHardOne) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low{64, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  EXPECT_EQ(RaiseDescriptorLimit(), limit.rlim_max);
  rlimit now{};
  getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(now.rlim_cur, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Memory, IsCountedAndCanBeTrimmed) {
  EXPECT_GT(ResidentMemory(), 100'000u);
  TrimMemory();
  EXPECT_GT(ResidentMemory(), 100'000u);
}

TEST(HostNames, ComputerNameIsTheHostNameToItsFirstDotInUpperCase) {
  const auto host = HostName();
  const auto computer = ComputerName();
  ASSERT_TRUE(host && computer);
  EXPECT_EQ(computer->find('.'), std::string::npos);
  for (const char c : *computer) EXPECT_FALSE(c >= 'a' && c <= 'z');
  EXPECT_EQ(computer->size(), std::min(host->find('.'), host->size()));
}

struct FolderRow {
  const char* name;
  bool root;
  std::map<std::string, std::string> environment;
  std::optional<std::string> folder;
};

class CommonFolder : public ::testing::TestWithParam<FolderRow> {};

TEST_P(CommonFolder, FollowsUserAndEnvironment) {
  const FolderRow& row = GetParam();
  EXPECT_EQ(CommonDataFolderFor(row.root,
                                [&row](const char* name) -> const char* {
                                  const auto found = row.environment.find(name);
                                  return found == row.environment.end() ? nullptr
                                                                        : found->second.c_str();
                                }),
            row.folder);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CommonFolder,
    ::testing::Values(
        FolderRow{"Root", true, {{"HOME", "/root"}}, "/var/lib"},
        FolderRow{"Service", false, {{"STATE_DIRECTORY", "/var/lib/x"}}, "/var/lib"},
        FolderRow{"StateHome", false, {{"XDG_STATE_HOME", "/s/"}, {"HOME", "/h"}}, "/s"},
        FolderRow{"Home", false, {{"HOME", "/h"}}, "/h/.local/state"},
        FolderRow{"RelativeStateHome",
                  false,
                  {{"XDG_STATE_HOME", "s"}, {"HOME", "/h"}},
                  "/h/.local/state"},
        FolderRow{
            "EmptyState", false, {{"STATE_DIRECTORY", ""}, {"HOME", "/h"}}, "/h/.local/state"},
        FolderRow{"Nothing", false, {}, std::nullopt},
        FolderRow{"RelativeHome", false, {{"HOME", "h"}}, std::nullopt}),
    [](const auto& row) { return row.param.name; });

TEST(SystemClock, ShowsTheSystemsTimes) {
  const Clock& clock = Clock::Instance();
  EXPECT_NEAR(static_cast<double>(clock.WallSeconds()), static_cast<double>(time(nullptr)), 5);
  EXPECT_NEAR(static_cast<double>(clock.WallMicroseconds()),
              static_cast<double>(time(nullptr)) * 1e6, 5e6);
  const auto first = clock.SteadyNow();
  EXPECT_GE(clock.SteadyNow(), first);
}

TEST(SystemClock, ComesBackAfterAReplacement) {
  {
    const TestSupport::FakeClock fake(1000);
    EXPECT_EQ(Clock::Instance().WallSeconds(), 1000);
  }
  EXPECT_GT(Clock::Instance().WallSeconds(), 1'600'000'000);
}

TEST(Sleep, LastsItsTime) {
  const auto start = std::chrono::steady_clock::now();
  SleepMilliseconds(5);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5));
}

}  // namespace
}  // namespace Platform
