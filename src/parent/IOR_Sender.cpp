#include "parent/IOR_Sender.h"

#include <ace/ACE.h>
#include <ace/Dev_Poll_Reactor.h>
#include <ace/OS_NS_errno.h>
#include <ace/Reactor.h>

#include <algorithm>

#include "logging/Log.h"
#include "parent/IOR_Acceptor.h"

namespace MessageRouter {

namespace {

constexpr long kTickMicroseconds = 100'000;
// The reactor keeps a table for all descriptors up to its size: the system's limit can be a
// billion, and the least free descriptor, which the system gives out, is far below this.
constexpr int kMaxDescriptors = 65536;

std::size_t ReactorSize() {
  return static_cast<std::size_t>(std::clamp(ACE::max_handles(), 64, kMaxDescriptors));
}

}  // namespace

IOR_Sender::~IOR_Sender() {
  Stop();
}

void IOR_Sender::SetPort(std::uint16_t port) {
  port_ = port;
}

void IOR_Sender::SetIOR(const std::string& ior) {
  ior_ = ior;
}

void IOR_Sender::Start() {
  {
    const ThreadHelper::Guard guard(mutex_);
    tried_ = false;
  }
  StoppableThreadHelper::Start();
}

void IOR_Sender::Tried(std::uint16_t port) {
  const ThreadHelper::Guard guard(mutex_);
  listeningPort_ = port;
  tried_ = true;
  condition_.Broadcast();
}

bool IOR_Sender::WaitUntilOpen(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  const ThreadHelper::Guard guard(mutex_);
  while (guard && !tried_) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !condition_.WaitFor(left)) break;
  }
  return listeningPort_ != 0;
}

void IOR_Sender::Process() {
  // Not the select reactor: that one refuses descriptors from 1024 on. The flag makes it go on
  // after an interrupted wait.
  ACE_Dev_Poll_Reactor implementation(ReactorSize(), true);
  ACE_Reactor reactor(&implementation);
  IOR_Acceptor acceptor(ior_);
  const ACE_INET_Addr anyAddress(port_, static_cast<ACE_UINT32>(INADDR_ANY));
  if (acceptor.open(anyAddress, &reactor, ACE_NONBLOCK, 1, 1) == -1) {
    LogError("IOR_Sender::Process: Failed to create acceptor");
    Tried(0);
    return;
  }
  ACE_INET_Addr bound;
  Tried(acceptor.acceptor().get_local_addr(bound) == 0 ? bound.get_port_number() : 0);

  while (!IsTerminated()) {
    ACE_Time_Value tick(0, kTickMicroseconds);
    if (reactor.handle_events(&tick) == -1) {
      LogError("IOR_Sender::Process: Reactor failed while handling events");
      break;
    }
    acceptor.Tick();
  }
  listeningPort_ = 0;
  acceptor.CloseHandlers();
  if (acceptor.close() == -1) LogError("IOR_Sender::Process: Failed to close acceptor");
}

}  // namespace MessageRouter
