#include "parent/IOR_Acceptor.h"

#include <ace/OS_NS_errno.h>
#include <ace/Reactor.h>

#include "logging/Log.h"

namespace MessageRouter {

IOR_Acceptor::IOR_Acceptor(const std::string& ior) : ior_(ior) {}

IOR_Acceptor::~IOR_Acceptor() {
  CloseHandlers();
}

int IOR_Acceptor::handle_input(ACE_HANDLE) {
  for (int accepted = 0; accepted < kAcceptsInARow; ++accepted) {
    ACE_SOCK_Stream stream;
    if (acceptor().accept(stream) == -1) {
      const int error = errno;
      if (error == EINTR || error == ECONNABORTED) continue;
      if (error != EWOULDBLOCK) Refused(error);
      return 0;
    }
    if (handlers_.size() >= kMaxHandlers) handlers_.front()->destroy();
    IOR_Handler* const handler = new IOR_Handler;
    handler->set_handle(stream.get_handle());
    handler->reactor(reactor());
    // Closes the handler if it fails.
    activate_svc_handler(handler);
  }
  return 0;
}

void IOR_Acceptor::Tick() {
  const auto now = Platform::Clock::Instance().SteadyNow();
  while (!handlers_.empty() && now - handlers_.front()->Opened() >= kHandlerLimit) {
    handlers_.front()->destroy();
  }
  if (paused_ && now - *paused_ >= kRefusalPause && reactor()->resume_handler(this) == 0) {
    paused_.reset();
  }
  // Not in handle_input: the reactor resumes a handler when its call returns.
  if (refused_ && !paused_ && reactor()->suspend_handler(this) == 0) paused_ = now;
  refused_ = false;
}

void IOR_Acceptor::CloseHandlers() {
  while (!handlers_.empty()) handlers_.front()->destroy();
}

IOR_Acceptor::Handlers::iterator IOR_Acceptor::Opened(IOR_Handler* handler) {
  return handlers_.insert(handlers_.end(), handler);
}

void IOR_Acceptor::Closed(Handlers::iterator place) {
  handlers_.erase(place);
}

void IOR_Acceptor::Refused(int error) {
  refused_ = true;
  const auto now = Platform::Clock::Instance().SteadyNow();
  if (refusalLogged_ && now - *refusalLogged_ < kRefusalLogInterval) return;
  LogSystemError(kLogWarning, "IOR port cannot accept connections", error);
  refusalLogged_ = now;
}

}  // namespace MessageRouter
