#pragma once

namespace MessageRouter {

// The way the limit on cached connections reaches the broker.
class Router_Resource_Factory {
 public:
  // Reads ConnectionCache (default 10). `descriptorLimit` is the number of descriptors that the
  // router counts on; `builtInMaximum` is what a 0 stands for. Logs what it takes.
  Router_Resource_Factory(unsigned descriptorLimit, unsigned builtInMaximum);

  unsigned cache_maximum() const { return maximum_; }

 private:
  unsigned maximum_;
};

}  // namespace MessageRouter
