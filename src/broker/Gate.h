#pragma once

// At most so many remote operations run at once, whatever the number of connections.
namespace Broker {

class Gate {
 public:
  // Called when the ORB is made; 1 or more.
  static void SetWidth(unsigned operations);

  // The first thing in every operation of a servant: waits for a place and holds it.
  class Pass {
   public:
    Pass();
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
  };
  // Gives the place up around a call back to a peer, so that two routers that call each other at
  // once don't wait for each other for ever.
  class Leave {
   public:
    Leave();
    ~Leave();
    Leave(const Leave&) = delete;
    Leave& operator=(const Leave&) = delete;
  };
};

}  // namespace Broker
