#pragma once

#include <cstdint>
#include <string>

#include "logging/Streamable.h"

namespace MessageRouter {

// One line of the table file: "<name>.<type>.<ior>." A name with a dot or a line end can't be
// stored.
class RegEntry : public Streamable {
 public:
  enum Type : std::int32_t {
    kClientConsumer = 0,
    kRouterConsumer = 1,
    kClientNotify = 2,
    kRouterNotify = 3,
  };

  std::ostream& write(std::ostream& stream) const override;
  std::istream& read(std::istream& stream) override;

  std::string name;
  std::int32_t type = kClientConsumer;
  std::string ior;
};

}  // namespace MessageRouter
