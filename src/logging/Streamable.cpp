#include "logging/Streamable.h"

#include <istream>
#include <ostream>

namespace MessageRouter {

std::ostream& Streamable::write(std::ostream& stream) const {
  return stream;
}

std::istream& Streamable::read(std::istream& stream) {
  return stream;
}

bool Streamable::isEmpty() const {
  return false;
}

std::ostream& operator<<(std::ostream& stream, const Streamable& value) {
  return value.write(stream);
}

std::istream& operator>>(std::istream& stream, Streamable& value) {
  return value.read(stream);
}

}  // namespace MessageRouter
