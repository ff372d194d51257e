#include "envelope/Timestamps.h"

#include <charconv>
#include <istream>
#include <ostream>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/Clock.h"

namespace MessageRouter {

Timestamp::Timestamp(std::string stampName, std::int64_t stampTime)
    : name(std::move(stampName)), time(stampTime) {}

void Timestamp::AppendTo(std::string& text) const {
  text += '(';
  text += name;
  text += ',';
  // Not through a stream's base or locale.
  text += std::to_string(time);
  text += ')';
}

std::ostream& Timestamp::write(std::ostream& stream) const {
  std::string text;
  AppendTo(text);
  return stream << text;
}

std::istream& Timestamp::read(std::istream& stream) {
  stream.ignore(1);
  std::getline(stream, name, ',');
  stream >> std::dec >> time;
  stream.ignore(1);
  return stream;
}

void Timestamps::AppendTo(std::string& text) const {
  text += '(';
  text += std::to_string(stamps.size());
  for (const Timestamp& stamp : stamps) {
    text += ',';
    stamp.AppendTo(text);
  }
  text += ')';
}

std::ostream& Timestamps::write(std::ostream& stream) const {
  std::string text;
  AppendTo(text);
  return stream << text;
}

std::istream& Timestamps::read(std::istream& stream) {
  stamps.clear();
  std::uint32_t count = 0;
  stream.ignore(1);
  if (!(stream >> std::dec >> count)) return stream;
  // The count is a stranger's number: room is made for what is there, not for what is promised.
  while (stamps.size() < count) {
    Timestamp stamp;
    stream.ignore(1);
    if (!stamp.read(stream)) {
      stream.clear(stream.rdstate() & ~std::ios::failbit);
      break;
    }
    stamps.push_back(std::move(stamp));
  }
  if (stream.good()) stream.ignore(1);
  stamps.shrink_to_fit();
  return stream;
}

bool Timestamps::Parse(std::string_view text) {
  if (ParsePlain(text)) return true;
  std::istringstream stream{std::string(text)};
  return !read(stream).fail();
}

// Takes what AppendTo writes for names without a comma, and nothing else.
bool Timestamps::ParsePlain(std::string_view text) {
  const auto skip = [&text](char expected) {
    if (text.empty() || text.front() != expected) return false;
    text.remove_prefix(1);
    return true;
  };
  const auto number = [&text](auto& value) {
    const std::from_chars_result end =
        std::from_chars(text.data(), text.data() + text.size(), value);
    text.remove_prefix(static_cast<std::size_t>(end.ptr - text.data()));
    return end.ec == std::errc();
  };
  stamps.clear();
  std::uint32_t count = 0;
  if (!skip('(') || !number(count)) return false;
  while (skip(',')) {
    if (!skip('(')) return false;
    const std::size_t comma = text.find(',');
    if (comma == std::string_view::npos) return false;
    Timestamp& stamp = stamps.emplace_back(std::string(text.substr(0, comma)), 0);
    text.remove_prefix(comma + 1);
    if (!number(stamp.time) || !skip(')')) return false;
  }
  if (text != ")" || stamps.size() != count) return false;
  stamps.shrink_to_fit();
  return true;
}

void Timestamps::Append(const std::string& name) {
  Append(name, Platform::Clock::Instance().WallSeconds());
}

void Timestamps::Append(const std::string& name, std::int64_t time) {
  stamps.emplace_back(name, time);
}

}  // namespace MessageRouter
