#pragma once

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// How long things took, in microseconds, and how one program tells another when they began: all
// processes of a host have the same steady clock.
namespace Bench {

using SteadyClock = std::chrono::steady_clock;

inline double MicrosecondsSince(SteadyClock::time_point begin) {
  return std::chrono::duration<double, std::micro>(SteadyClock::now() - begin).count();
}

// What this process has used.
inline double ProcessorMicroseconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC * 1e6;
}

// The beginning of a payload.
inline constexpr char kStamp[] = "stamp=";

inline std::string StampedText(std::size_t size) {
  std::string text = kStamp + std::to_string(SteadyClock::now().time_since_epoch().count()) + ' ';
  if (text.size() < size) text.append(size - text.size(), 'x');
  return text;
}

// The age of the stamp in the bytes of a message; nothing if there is none.
inline std::optional<double> AgeOfStamp(std::string_view bytes) {
  const std::size_t at = bytes.find(kStamp);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view digits = bytes.substr(at + sizeof kStamp - 1);
  SteadyClock::rep made = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), made);
  return MicrosecondsSince(SteadyClock::time_point(SteadyClock::duration(made)));
}

class Latencies {
 public:
  void Add(double microseconds) { all_.push_back(microseconds); }
  // {"count", "median_us", "p99_us", "max_us"}; the count alone if it is 0.
  nlohmann::json Report() {
    if (all_.empty()) return {{"count", 0}};
    std::sort(all_.begin(), all_.end());
    return {{"count", all_.size()},
            {"median_us", all_[all_.size() / 2]},
            {"p99_us", all_[all_.size() * 99 / 100]},
            {"max_us", all_.back()}};
  }

 private:
  std::vector<double> all_;
};

}  // namespace Bench
