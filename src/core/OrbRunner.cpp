#include "core/OrbRunner.h"

#include <ace/Thread.h>

#include <exception>
#include <stdexcept>
#include <string>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

// A broker thread that dies of anything but a CORBA exception takes the process with it, at once:
// the service manager brings it back, and everything worth keeping is on disk.
ACE_THR_FUNC_RETURN RunORB(void* argument) {
  const CORBA::ORB_var orb = CORBA::ORB::_duplicate(static_cast<CORBA::ORB_ptr>(argument));
  try {
    LogDebug("RunORB thread started\n");
    Platform::SetThreadName("broker");
    orb->run();
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("RunORB", exception, "");
  } catch (const std::exception& exception) {
    LogError("%s", ("RunOrb caught C++ exception\n" + std::string(exception.what())).c_str());
    Platform::ExitProcess(-1);
  } catch (...) {
    LogError("RunORB caught unknown exception\n");
    Platform::ExitProcess(-1);
  }
  return nullptr;
}

}  // namespace

OrbRunner::OrbRunner(CORBA::ORB_ptr orb, unsigned threads) : orb_(CORBA::ORB::_duplicate(orb)) {
  for (unsigned i = 0; i < threads; ++i) {
    ACE_thread_t id{};
    if (ACE_Thread::spawn(&RunORB, orb_.in(), THR_NEW_LWP | THR_JOINABLE, &id) == -1) {
      // The destructor doesn't run for an object that was never finished.
      ShutDownAndJoin();
      throw std::runtime_error("Failed to start ORB thread");
    }
    threads_.insert(id);
  }
}

OrbRunner::~OrbRunner() {
  ShutDownAndJoin();
}

// Swallows what is thrown on the way: the tear-down goes on in any case.
void OrbRunner::ShutDownAndJoin() {
  try {
    orb_->shutdown(true);
  } catch (const CORBA::Exception& exception) {
    LogDebug("Shutting the broker down: %s\n", Broker::Describe(exception).c_str());
  } catch (...) {
    LogDebug("Shutting the broker down: unknown exception\n");
  }
  for (const ACE_thread_t id : threads_) {
    if (ACE_Thread::join(id) != 0) LogDebug("A broker thread could not be joined\n");
  }
  threads_.clear();
}

}  // namespace MessageRouter
