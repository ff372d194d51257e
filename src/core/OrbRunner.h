#pragma once

#include <ace/OS_NS_Thread.h>
#include <omniORB4/CORBA.h>

#include <set>

namespace MessageRouter {

// Owns the threads that run the broker, and ends them.
class OrbRunner {
 public:
  // Starts them. Throws std::runtime_error "Failed to start ORB thread".
  OrbRunner(CORBA::ORB_ptr orb, unsigned threads);
  // Shuts the broker down, which waits for the requests in progress, and joins the threads.
  ~OrbRunner();
  OrbRunner(const OrbRunner&) = delete;
  OrbRunner& operator=(const OrbRunner&) = delete;

 private:
  void ShutDownAndJoin();

  CORBA::ORB_var orb_;
  std::set<ACE_thread_t> threads_;
};

}  // namespace MessageRouter
