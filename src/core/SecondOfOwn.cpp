#include "core/SecondOfOwn.h"

#include <algorithm>
#include <cstdint>

#include "platform/Clock.h"
#include "platform/Files.h"

namespace MessageRouter {
namespace {

constexpr unsigned kStepMilliseconds = 20;
constexpr unsigned kLimitMilliseconds = 2000;

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// File systems stamp with a clock that runs a tick of the kernel behind.
constexpr std::int64_t kLagNanoseconds = 10'000'000;

// Or in the next one, where the clock was set back a little.
bool ChangedIn(const std::string& folder, std::int64_t second) {
  const auto version = Platform::VersionOf(folder);
  if (!version) return false;
  const std::int64_t changed = version->modifiedNanoseconds;
  return changed / kNanosecondsPerSecond - 1 <= second &&
         second <= (changed + kLagNanoseconds) / kNanosecondsPerSecond;
}

}  // namespace

void AwaitSecondOfOwn(const std::vector<std::string>& folders,
                      const std::function<void(unsigned milliseconds)>& sleep) {
  for (unsigned waited = 0; waited < kLimitMilliseconds; waited += kStepMilliseconds) {
    const std::int64_t now = Platform::Clock::Instance().WallSeconds();
    if (std::none_of(folders.begin(), folders.end(),
                     [now](const std::string& folder) { return ChangedIn(folder, now); })) {
      return;
    }
    sleep(kStepMilliseconds);
  }
}

}  // namespace MessageRouter
