#include "parent/IOR_Handler.h"

#include <ace/OS_NS_errno.h>
#include <ace/Reactor.h>

#include "logging/Log.h"
#include "parent/IOR_Acceptor.h"

namespace MessageRouter {

// Without a reactor of its own the base would make the process's.
IOR_Handler::IOR_Handler()
    : ACE_Svc_Handler(nullptr, nullptr, nullptr),
      opened_(Platform::Clock::Instance().SteadyNow()) {}

int IOR_Handler::open(void* acceptor) {
  acceptor_ = static_cast<IOR_Acceptor*>(static_cast<IOR_Acceptor::Base*>(acceptor));
  place_ = acceptor_->Opened(this);
  if (reactor()->register_handler(
          this, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::WRITE_MASK) == -1) {
    return -1;
  }
  registered_ = true;
  return 0;
}

int IOR_Handler::handle_input(ACE_HANDLE) {
  return -1;
}

int IOR_Handler::handle_output(ACE_HANDLE) {
  const std::string& ior = acceptor_->Ior();
  while (sent_ < ior.size()) {
    const ssize_t length =
        peer().send(ior.data() + sent_, ior.size() - sent_, MSG_NOSIGNAL, nullptr);
    // A client that reads slowly waits for its own socket, and holds up nobody else.
    if (length == -1 && (errno == EWOULDBLOCK || errno == EINTR)) return 0;
    if (length <= 0) {
      LogError("IOR_Handler::handle_output: Failed to send IOR string");
      return -1;
    }
    sent_ += static_cast<std::size_t>(length);
  }
  return -1;
}

int IOR_Handler::handle_close(ACE_HANDLE, ACE_Reactor_Mask) {
  destroy();
  return 0;
}

void IOR_Handler::destroy() {
  if (registered_ && reactor()->remove_handler(this, ACE_Event_Handler::ALL_EVENTS_MASK |
                                                         ACE_Event_Handler::DONT_CALL) == -1) {
    LogError("IOR_Handler::destroy: Failed to remove handler from reactor");
  }
  if (peer().close() == -1) LogError("IOR_Handler::destroy: Failed to close socket stream");
  if (acceptor_ != nullptr) acceptor_->Closed(place_);
  delete this;
}

}  // namespace MessageRouter
