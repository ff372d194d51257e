#pragma once

#include <ace/Acceptor.h>
#include <ace/SOCK_Acceptor.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>

#include "parent/IOR_Handler.h"

namespace MessageRouter {

// Accepts the clients of the IOR port, and keeps their number and their time within limits.
// Threads: the reactor's.
class IOR_Acceptor : public ACE_Acceptor<IOR_Handler, ACE_SOCK_Acceptor> {
 public:
  using Base = ACE_Acceptor<IOR_Handler, ACE_SOCK_Acceptor>;
  using Handlers = std::list<IOR_Handler*>;

  // At most so many clients at once: the oldest gives way.
  static constexpr std::size_t kMaxHandlers = 256;
  // A client that has not taken its text by then is closed.
  static constexpr std::chrono::seconds kHandlerLimit{10};
  // After the system has refused a connection, for want of descriptors, none is accepted for so
  // long: the listening socket stays ready all the while, and the loop would spin.
  static constexpr std::chrono::milliseconds kRefusalPause{100};
  // A system that refuses connections is reported no more often than this.
  static constexpr std::chrono::seconds kRefusalLogInterval{60};
  // So many are accepted in a row before the others have their turn.
  static constexpr int kAcceptsInARow = 16;

  explicit IOR_Acceptor(const std::string& ior);
  ~IOR_Acceptor() override;

  int handle_input(ACE_HANDLE) override;
  // After each round of the event loop: closes clients that had their time, and begins or ends the
  // pause after a refusal.
  void Tick();
  void CloseHandlers();

  const std::string& Ior() const { return ior_; }
  std::size_t HandlerCount() const { return handlers_.size(); }

  // The handlers' own: in and out of the list, which is ordered by age.
  Handlers::iterator Opened(IOR_Handler* handler);
  void Closed(Handlers::iterator place);

 private:
  void Refused(int error);

  const std::string ior_;
  Handlers handlers_;
  bool refused_ = false;  // in this round
  std::optional<Platform::Clock::SteadyTime> paused_;
  std::optional<Platform::Clock::SteadyTime> refusalLogged_;
};

}  // namespace MessageRouter
