#include "routing/RegEntry.h"

#include <istream>
#include <ostream>

namespace MessageRouter {

std::ostream& RegEntry::write(std::ostream& stream) const {
  return stream << name << '.' << std::dec << type << '.' << ior << '.';
}

std::istream& RegEntry::read(std::istream& stream) {
  std::getline(stream, name, '.');
  if (!stream.good()) return stream;
  stream >> std::dec >> type;
  if (stream.peek() == '.') {
    stream.get();
    std::getline(stream, ior, '.');
  }
  return stream;
}

}  // namespace MessageRouter
