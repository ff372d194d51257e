#pragma once

namespace MessageRouter {

// Who is on the way to a peer or in a call of it, for one direction. The end of a session leaves
// this alone: a peer that hangs in a call and logs on again must not take a second worker.
// Threads: a value; its owner guards it.
struct Visitors {
  bool inside = false;
  // Who was turned away, and comes again.
  bool worker = false;     // a getter or sender
  bool threshold = false;  // a threshold worker

  // `turnedAway` is one of the two above.
  bool Enter(bool Visitors::*turnedAway);
  Visitors Leave();  // whom to offer the peer to
};

}  // namespace MessageRouter
