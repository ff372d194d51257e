#pragma once

#include <string>
#include <vector>

#include "logging/Streamable.h"

namespace MessageRouter {

// The persistent map from the name of every router below this one to the child that leads there.
// Not available in this version: it is always closed, finds nothing and stores nothing.
// Threads: any.
class Logical : public Streamable {
 public:
  static constexpr int kClosed = -2;
  static constexpr int kOtherOwner = -3;

  explicit Logical(std::string path);
  virtual bool IsClosed() const;
  std::ostream& write(std::ostream& stream) const override;

  std::string Lookup(const std::string& key) const;  // empty if absent or closed
  int Store(const std::string& key, const std::string& value);
  int Remove(const std::string& key, const std::string& owner);
  std::size_t KeysOf(const std::string& owner, std::vector<std::string>& keys) const;
  std::size_t AllKeys(std::vector<std::string>& keys) const;
  bool Reset();

 private:
  std::string path_;
};

}  // namespace MessageRouter
