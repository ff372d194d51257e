#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "threads/ThreadHelper.h"

namespace MessageRouter {

// The IOR port: hands the router's stringified reference to whoever connects, and closes.
class IOR_Sender : public ThreadHelper::StoppableThreadHelper {
 public:
  IOR_Sender() = default;
  ~IOR_Sender() override;
  // Both before Start.
  void SetPort(std::uint16_t port);
  void SetIOR(const std::string& ior);
  // What the last run has tried says nothing about this one.
  void Start() override;
  // The port that is open; 0 while none is. Any thread.
  std::uint16_t ListeningPort() const { return listeningPort_; }
  // After Start: until the port is open or could not be opened, and at most so long. False if it is
  // not open then.
  bool WaitUntilOpen(std::chrono::milliseconds time);
  void Process() override;

 private:
  void Tried(std::uint16_t port);

  std::uint16_t port_ = 20002;
  std::string ior_;
  std::atomic<std::uint16_t> listeningPort_{0};
  bool tried_ GUARDED_BY(mutex_) = false;  // to open the port, since Start
};

}  // namespace MessageRouter
