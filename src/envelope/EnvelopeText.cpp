#include "envelope/EnvelopeText.h"

#include <limits>

namespace MessageRouter::EnvelopeText {
namespace {

// A key line with a value; anything else with "[" in it is to be skipped.
bool ParseKeyLine(std::string_view line, std::size_t open, Field& field) {
  const std::size_t close = line.find(']', open);
  if (close == std::string_view::npos || line.size() <= close + 2) return false;
  field.key = line.substr(open + 1, close - open - 1);
  field.firstLine = line.substr(close + 2);
  field.value = field.firstLine;
  return true;
}

// What stands behind blanks and a sign.
std::string_view SkipToDigits(std::string_view text, bool& negative) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);
  negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  return text;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

void AppendField(std::string& text, std::string_view key, std::string_view value) {
  text += '[';
  text += key;
  text += "] ";
  text += value;
  text += '\n';
}

bool ReadsBack(std::string_view value) {
  const std::size_t lineEnd = value.find('\n');
  if (lineEnd == std::string_view::npos) return true;
  return lineEnd > 0 && value.find('[', lineEnd) == std::string_view::npos;
}

bool FieldReader::NextLine(std::string_view& line) {
  if (finished_) return false;
  const std::size_t end = rest_.find('\n');
  atEnd_ = end == std::string_view::npos;
  finished_ = atEnd_;
  line = rest_.substr(0, end);
  rest_.remove_prefix(atEnd_ ? rest_.size() : end + 1);
  return true;
}

bool FieldReader::Next(Field& field) {
  bool started = pending_;
  bool severalLines = false;
  field = next_;
  pending_ = false;
  std::string_view line;
  while (NextLine(line)) {
    const std::size_t open = line.find('[');
    if (open != std::string_view::npos) {
      if (!ParseKeyLine(line, open, next_)) continue;
      pending_ = true;
      if (started) break;
      field = next_;
      pending_ = false;
      started = true;
    } else if (!atEnd_ && started) {
      if (!severalLines) joined_ = field.firstLine;
      severalLines = true;
      joined_ += '\n';
      joined_ += line;
    }
  }
  if (severalLines) field.value = joined_;
  return started;
}

std::uint32_t ParseUnsigned(std::string_view text) {
  constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
  bool negative = false;
  text = SkipToDigits(text, negative);
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < text.size() && IsDigit(text[i]); ++i) {
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
    if (value > kLargest) return kLargest;
  }
  return negative && value != 0 ? kLargest : static_cast<std::uint32_t>(value);
}

bool ParseFlag(std::string_view text) {
  bool negative = false;
  text = SkipToDigits(text, negative);
  const std::size_t digit = text.find_first_not_of('0');
  return digit != std::string_view::npos && IsDigit(text[digit]);
}

}  // namespace MessageRouter::EnvelopeText
