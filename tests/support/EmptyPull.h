#pragma once

#include <gtest/gtest.h>

#include "routing/RouterTableEntry.h"

namespace MessageRouter {

// The peer looks for its next envelope in a moment in which nothing waits. What waits is back
// afterwards.
inline void PullWithNothingThere(RouterTableEntry& entry) {
  const std::vector<Envelope> waiting = entry.TakeAll();
  Envelope none;
  EXPECT_FALSE(entry.PeekNext(none, entry.Name()));
  for (const Envelope& envelope : waiting) EXPECT_TRUE(entry.Enqueue(envelope, entry.Name()));
}

}  // namespace MessageRouter
