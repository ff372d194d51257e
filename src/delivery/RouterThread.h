#pragma once

#include "routing/Routing.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

// The route thread.
class RouterThread : public ThreadHelper::StoppableThreadHelper {
 public:
  explicit RouterThread(Routing& routing);
  ~RouterThread() override;
  void Process() override;

 private:
  Routing& routing_;
};

}  // namespace MessageRouter
