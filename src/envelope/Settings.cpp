#include "envelope/Settings.h"

#include <algorithm>
#include <atomic>

#include "broker/Limits.h"
#include "config/Configuration.h"
#include "envelope/Envelope.h"

namespace MessageRouter {
namespace {

constexpr std::int64_t kUnread = -1;
std::atomic<std::int64_t> shrinkEnvelopes{kUnread};
std::atomic<std::int64_t> messageTimeoutSec{kUnread};

constexpr Settings::LargestEnvelopes kLargest{Broker::Limits::kMaxOwnEnvelopeBytes,
                                              Broker::Limits::kMaxRouterEnvelopeBytes};
std::atomic<std::size_t> largestThatBegins{kLargest.beginsHere};
std::atomic<std::size_t> largestFromRouter{kLargest.fromRouter};

std::uint32_t Kept(std::atomic<std::int64_t>& kept, const char* name, std::uint32_t defaultValue) {
  std::int64_t value = kept.load(std::memory_order_relaxed);
  if (value == kUnread) {
    value = GetConfigInt(name, defaultValue);
    kept.store(value, std::memory_order_relaxed);
  }
  return static_cast<std::uint32_t>(value);
}

}  // namespace

namespace Settings {

bool ShrinkEnvelopes() {
  return Kept(shrinkEnvelopes, "ShrinkEnvelopes", 1) > 0;
}

std::uint32_t MessageTimeoutSec() {
  return Kept(messageTimeoutSec, "MessageTimeoutSec", 43200);
}

LargestEnvelopes Largest() {
  return {largestThatBegins.load(std::memory_order_relaxed),
          largestFromRouter.load(std::memory_order_relaxed)};
}

std::size_t LargestWithStamps(std::size_t stamps) {
  using namespace Broker::Limits;
  return Largest().fromRouter + kHopBytes * std::min<std::size_t>(stamps, kMaxGrownHops);
}

void Forget() {
  shrinkEnvelopes = kUnread;
  messageTimeoutSec = kUnread;
  SetLargest(kLargest);
}

void SetLargest(const LargestEnvelopes& largest) {
  largestThatBegins = largest.beginsHere;
  largestFromRouter = largest.fromRouter;
}

}  // namespace Settings

std::uint32_t MessageTimeoutSeconds() {
  return Settings::MessageTimeoutSec();
}

}  // namespace MessageRouter
