#pragma once

#include <ace/SOCK_Stream.h>
#include <ace/Svc_Handler.h>

#include <cstddef>
#include <list>

#include "platform/Clock.h"

namespace MessageRouter {

class IOR_Acceptor;

// One client of the IOR port: gets the text and is closed. Whatever it sends closes it at once.
// Owns itself from open on, and is deleted by the reactor through handle_close or by the acceptor
// through destroy.
// Threads: the reactor's.
class IOR_Handler : public ACE_Svc_Handler<ACE_SOCK_Stream, ACE_NULL_SYNCH> {
 public:
  IOR_Handler();

  int open(void* acceptor) override;
  int handle_input(ACE_HANDLE) override;
  int handle_output(ACE_HANDLE) override;
  int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override;
  void destroy() override;

  Platform::Clock::SteadyTime Opened() const { return opened_; }

 private:
  friend class IOR_Acceptor;

  IOR_Acceptor* acceptor_ = nullptr;
  std::list<IOR_Handler*>::iterator place_;  // in the acceptor's list, once open has run
  bool registered_ = false;
  Platform::Clock::SteadyTime opened_;
  std::size_t sent_ = 0;  // octets of the acceptor's text
};

}  // namespace MessageRouter
