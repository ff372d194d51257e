#include "routing/Logical.h"

#include <ostream>
#include <utility>

namespace MessageRouter {

Logical::Logical(std::string path) : path_(std::move(path)) {}

bool Logical::IsClosed() const {
  return true;
}

std::ostream& Logical::write(std::ostream& stream) const {
  return stream << "Logical(" << path_ << ",0)";
}

std::string Logical::Lookup(const std::string&) const {
  return {};
}

int Logical::Store(const std::string&, const std::string&) {
  return kClosed;
}

int Logical::Remove(const std::string&, const std::string&) {
  return kClosed;
}

std::size_t Logical::KeysOf(const std::string&, std::vector<std::string>&) const {
  return 0;
}

std::size_t Logical::AllKeys(std::vector<std::string>&) const {
  return 0;
}

bool Logical::Reset() {
  return false;
}

}  // namespace MessageRouter
