#pragma once

#include <BrelixMessaging.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/FakeRoutingHost.h"

namespace TestSupport {

// A port of this host that takes connections. Where nobody accepts them, what is asked there stays
// without an answer.
class LoopbackListener {
 public:
  LoopbackListener() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    bind(socket_, reinterpret_cast<sockaddr*>(&address_), sizeof address_);
    listen(socket_, 64);
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address_), &size);
  }
  ~LoopbackListener() { close(socket_); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  int Socket() const { return socket_; }
  // The caller owns it.
  template <class Interface>
  typename Interface::_ptr_type Reference() const {
    const std::string place =
        "corbaloc::1.2@127.0.0.1:" + std::to_string(ntohs(address_.sin_port)) + "/Object";
    const CORBA::Object_var object = ReferenceOrb()->string_to_object(place.c_str());
    return Interface::_unchecked_narrow(object);
  }

 private:
  int socket_;
  sockaddr_in address_{};
};

}  // namespace TestSupport
