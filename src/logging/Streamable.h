#pragma once

#include <iosfwd>

namespace MessageRouter {

// Base of everything that can be written to and read from a text stream.
class Streamable {
 public:
  virtual ~Streamable() = default;
  // By default nothing is written or read. Both return the stream.
  virtual std::ostream& write(std::ostream& stream) const;
  virtual std::istream& read(std::istream& stream);
  virtual bool isEmpty() const;
};

std::ostream& operator<<(std::ostream& stream, const Streamable& value);
std::istream& operator>>(std::istream& stream, Streamable& value);

}  // namespace MessageRouter
