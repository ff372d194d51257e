#pragma once

#include <utility>

#include "envelope/Envelope.h"
#include "routing/RouteQueue.h"

namespace MessageRouter {

// A message of the router itself. Unless it is queued it goes, with its file.
class OwnMessage {
 public:
  OwnMessage() = default;
  ~OwnMessage() {
    if (!queued_) envelope.Retire();
  }
  OwnMessage(const OwnMessage&) = delete;
  OwnMessage& operator=(const OwnMessage&) = delete;

  void Queue(RouteQueue& queue) {
    queue.Append(std::move(envelope));
    queued_ = true;
  }

  Envelope envelope;

 private:
  bool queued_ = false;
};

}  // namespace MessageRouter
