#pragma once

#include <memory>
#include <utility>

namespace MessageRouter {

// A part that its owner has only at times: one pointer where it is missing, copied with its owner,
// and given up by a move.
template <class T>
class CopiedPointer {
 public:
  CopiedPointer() = default;
  CopiedPointer(const CopiedPointer& other)
      : pointer_(other.pointer_ ? std::make_unique<T>(*other.pointer_) : nullptr) {}
  CopiedPointer(CopiedPointer&&) noexcept = default;
  CopiedPointer& operator=(const CopiedPointer& other) {
    if (this != &other) *this = CopiedPointer(other);
    return *this;
  }
  CopiedPointer& operator=(CopiedPointer&&) noexcept = default;
  ~CopiedPointer() = default;

  explicit operator bool() const { return pointer_ != nullptr; }
  const T* get() const { return pointer_.get(); }
  // Makes the part if it is missing.
  T& Use() {
    if (!pointer_) pointer_ = std::make_unique<T>();
    return *pointer_;
  }
  void Reset() { pointer_.reset(); }

 private:
  std::unique_ptr<T> pointer_;
};

}  // namespace MessageRouter
