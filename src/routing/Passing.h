#pragma once

#include <exception>

namespace MessageRouter {

// The lock of the map can't be taken: what needs it is done later.
class MapLockFailure : public std::exception {
 public:
  const char* what() const noexcept override { return "The lock of the map cannot be taken"; }
};

// Whether what the exception has ended may well succeed at another moment.
bool IsPassing(const std::exception& exception);

}  // namespace MessageRouter
