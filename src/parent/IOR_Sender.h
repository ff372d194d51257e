#pragma once

#include <atomic>
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
  // The port that is open; 0 while none is. Any thread.
  std::uint16_t ListeningPort() const { return listeningPort_; }
  void Process() override;

 private:
  std::uint16_t port_ = 20002;
  std::string ior_;
  std::atomic<std::uint16_t> listeningPort_{0};
};

}  // namespace MessageRouter
