#include "envelope/Timestamps.h"

#include <istream>
#include <ostream>
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

void Timestamps::Append(const std::string& name) {
  Append(name, Platform::Clock::Instance().WallSeconds());
}

void Timestamps::Append(const std::string& name, std::int64_t time) {
  stamps.emplace_back(name, time);
}

}  // namespace MessageRouter
