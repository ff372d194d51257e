#pragma once

#include <exception>

namespace MessageRouter {

// A lock can't be taken: what needs it is done later.
class LockFailure : public std::exception {};
class SubscriberLockFailure : public LockFailure {
 public:
  const char* what() const noexcept override {
    return "The lock of the subscriber cannot be taken";
  }
};
class MapLockFailure : public LockFailure {
 public:
  const char* what() const noexcept override { return "The lock of the map cannot be taken"; }
};

// Whether what the exception has ended may well succeed at another moment.
bool IsPassing(const std::exception& exception);

}  // namespace MessageRouter
