#include "certmgr/Timestamp.h"

#include <chrono>
#include <string_view>

namespace Certmgr {
namespace {

constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:ddZ";
constexpr int kFirstYear = 1950;

bool HasForm(const std::string& text) {
  if (text.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) return false;
  }
  return true;
}

}  // namespace

std::optional<std::int64_t> ParseTimestamp(const std::string& text) {
  if (!HasForm(text)) return std::nullopt;
  const auto number = [&](std::size_t position, std::size_t length) {
    return std::stoi(text.substr(position, length));
  };
  const std::chrono::year_month_day date{std::chrono::year{number(0, 4)},
                                         std::chrono::month{static_cast<unsigned>(number(5, 2))},
                                         std::chrono::day{static_cast<unsigned>(number(8, 2))}};
  const int hour = number(11, 2);
  const int minute = number(14, 2);
  const int second = number(17, 2);
  const bool exists = date.ok() && hour < 24 && minute < 60 && second < 60;
  if (!exists || number(0, 4) < kFirstYear) return std::nullopt;
  const auto time = std::chrono::sys_seconds(std::chrono::sys_days{date}) +
                    std::chrono::hours{hour} + std::chrono::minutes{minute} +
                    std::chrono::seconds{second};
  return time.time_since_epoch().count();
}

}  // namespace Certmgr
