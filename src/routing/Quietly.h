#pragma once

namespace MessageRouter {

// Runs what is no loss where it fails, such as a line in the log while there is no memory to
// compose it, and lets nothing out: what comes after it must happen.
template <class Function>
void Quietly(Function&& function) noexcept {
  try {
    function();
  } catch (...) {
  }
}

}  // namespace MessageRouter
