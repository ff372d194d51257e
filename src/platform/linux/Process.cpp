#include "platform/Process.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "platform/Files.h"
#include "platform/linux/CommonDataFolder.h"

namespace Platform {
namespace {

std::atomic<void (*)()> lastWords{nullptr};

std::atomic<FolderSource> commonDataFolderSource{nullptr};
std::atomic<const Processors*> playedProcessors{nullptr};
std::atomic<const HostNames*> playedNames{nullptr};

constexpr unsigned kMaskBits = 64;

struct ThreadEnd {
  void (*action)();
  bool othersHadTheirTurn;
};
thread_local constinit ThreadEnd threadEnd{};

// Nothing if the system has no key left.
std::optional<pthread_key_t> ThreadEndKey() {
  static const std::optional<pthread_key_t> key = []() -> std::optional<pthread_key_t> {
    static pthread_key_t made;
    // Values are asked to end in no certain order, but one that is set again only once all others
    // have been asked.
    constexpr auto kEnd = [](void* end) {
      auto& mine = *static_cast<ThreadEnd*>(end);
      if (!mine.othersHadTheirTurn) {
        mine.othersHadTheirTurn = true;
        if (pthread_setspecific(made, end) == 0) return;
      }
      mine.action();
    };
    if (pthread_key_create(&made, kEnd) != 0) return std::nullopt;
    return made;
  }();
  return key;
}

thread_local std::uint32_t threadId = 0;

// The numbers of a forked child are its own.
const int forkHandler = pthread_atfork(nullptr, nullptr, [] { threadId = 0; });

}  // namespace

void SetLastWords(void (*flush)()) {
  lastWords = flush;
}

void ExitProcess(int status) {
  // Every thread that comes here runs them: one must not end the process under another's.
  try {
    if (void (*const flush)() = lastWords.load()) flush();
  } catch (...) {
    // There was no memory for them.
  }
  _exit(status & 0xFF);
}

void DebugBreak() {
  raise(SIGTRAP);
}

std::uint32_t ThreadId() {
  if (threadId == 0) threadId = static_cast<std::uint32_t>(syscall(SYS_gettid));
  return threadId;
}

std::uint32_t ProcessId() {
  return static_cast<std::uint32_t>(getpid());
}

void SetThreadName(const char* name) {
  constexpr std::size_t kLongest = 15;
  pthread_setname_np(pthread_self(), std::string(name).substr(0, kLongest).c_str());
}

bool RunAtThreadEnd(void (*action)()) {
  const std::optional<pthread_key_t> key = ThreadEndKey();
  threadEnd = {action, false};
  return key && pthread_setspecific(*key, &threadEnd) == 0;
}

void SetProcessors(const Processors* processors) {
  playedProcessors = processors;
}

std::optional<std::uint64_t> AffinityMask(int* error) {
  if (const Processors* const played = playedProcessors) return played->affinityMask(error);
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) {
    if (error != nullptr) *error = errno;
    return std::nullopt;
  }
  std::uint64_t mask = 0;
  for (unsigned cpu = 0; cpu < kMaskBits; ++cpu) {
    if (CPU_ISSET(cpu, &set)) mask |= std::uint64_t{1} << cpu;
  }
  return mask;
}

bool SetAffinity(unsigned cpu, int* error) {
  if (const Processors* const played = playedProcessors) return played->setAffinity(cpu, error);
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu < CPU_SETSIZE) CPU_SET(cpu, &set);
  // The system knows affinities of threads only; later threads inherit that of their maker.
  const auto threads = ListFolder("/proc/self/task");
  int result = sched_setaffinity(0, sizeof set, &set);
  if (result != 0 && error != nullptr) *error = errno;
  if (result == 0 && threads) {
    for (const std::string& thread : *threads) {
      sched_setaffinity(std::atoi(thread.c_str()), sizeof set, &set);
    }
  }
  return result == 0;
}

void TrimMemory() {
  malloc_trim(0);
}

std::size_t RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  const rlim_t soft = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : soft;
}

std::size_t ResidentMemory() {
  std::FILE* const file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  unsigned long total = 0;
  unsigned long resident = 0;
  const int fields = std::fscanf(file, "%lu %lu", &total, &resident);
  std::fclose(file);
  return fields == 2 ? resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

void SetHostNames(const HostNames* names) {
  playedNames = names;
}

std::optional<std::string> HostName() {
  if (const HostNames* const played = playedNames) return played->hostName();
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return std::nullopt;
  return name.data();
}

std::optional<std::string> ComputerName() {
  if (const HostNames* const played = playedNames) return played->computerName();
  auto name = HostName();
  if (!name) return std::nullopt;
  name->erase(std::min(name->find('.'), name->size()));
  std::transform(name->begin(), name->end(), name->begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return name;
}

std::optional<std::string> CommonDataFolder() {
  if (const FolderSource source = commonDataFolderSource) return source();
  return CommonDataFolderFor(geteuid() == 0, [](const char* name) { return std::getenv(name); });
}

void SetCommonDataFolderSource(FolderSource source) {
  commonDataFolderSource = source;
}

std::optional<std::string> CommonDataFolderFor(bool root,
                                               const std::function<const char*(const char*)>& get) {
  // A relative path would depend on where the process was started.
  const auto absolute = [&get](const char* name) -> std::optional<std::string> {
    const char* const value = get(name);
    if (value == nullptr || *value != '/') return std::nullopt;
    std::string path(value);
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  };
  const char* const given = get("STATE_DIRECTORY");
  if (root || (given != nullptr && *given != '\0')) return "/var/lib";
  if (auto state = absolute("XDG_STATE_HOME")) return state;
  if (auto home = absolute("HOME")) return *home + "/.local/state";
  return std::nullopt;
}

void SleepMilliseconds(unsigned milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace Platform
