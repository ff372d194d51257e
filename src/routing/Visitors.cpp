#include "routing/Visitors.h"

#include <utility>

namespace MessageRouter {

bool Visitors::Enter(bool Visitors::*turnedAway) {
  if (inside) {
    this->*turnedAway = true;
    return false;
  }
  inside = true;
  return true;
}

Visitors Visitors::Leave() {
  return std::exchange(*this, Visitors());
}

}  // namespace MessageRouter
