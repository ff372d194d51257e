#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Giop.h"
#include "support/LoopbackListener.h"

namespace TestSupport {

// A parent's door for routers behind a real connection, which can fall silent as a frozen process
// does: what it is asked then stays without an answer, while its host still takes everything.
// Threads: any.
class RemoteDoor {
 public:
  // What it is asked beside the operations: whether it is there.
  static constexpr char kPlace[] = "(place)";

  RemoteDoor() {
    acceptor_ = std::thread([this] { Accept(); });
  }
  ~RemoteDoor() {
    Answer();
    shutdown(listener_.Socket(), SHUT_RDWR);
    acceptor_.join();
    for (const int connection : connections_) shutdown(connection, SHUT_RDWR);
    for (std::thread& thread : threads_) thread.join();
    for (const int connection : connections_) close(connection);
  }
  RemoteDoor(const RemoteDoor&) = delete;
  RemoteDoor& operator=(const RemoteDoor&) = delete;

  template <class Interface>
  typename Interface::_ptr_type Reference() const {
    return listener_.Reference<Interface>();
  }

  // From now on this is not answered.
  void FallSilentAt(const std::string& operation) {
    const std::lock_guard<std::mutex> guard(mutex_);
    silentAt_ = operation;
  }
  // Whatever waits and whatever comes is answered.
  void Answer() {
    const std::lock_guard<std::mutex> guard(mutex_);
    silentAt_.clear();
    condition_.notify_all();
  }
  // So often it breaks the connection in place of an answer.
  void BreakAt(const std::string& operation, unsigned times) {
    const std::lock_guard<std::mutex> guard(mutex_);
    breaksAt_ = operation;
    breaks_ = times;
  }
  bool Breaks() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return breaks_ != 0;
  }
  std::size_t Calls(const std::string& operation) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = calls_.find(operation);
    return found == calls_.end() ? 0 : found->second;
  }

 private:
  void Accept() {
    for (int connection; (connection = accept(listener_.Socket(), nullptr, nullptr)) >= 0;) {
      connections_.push_back(connection);
      threads_.emplace_back([this, connection] { Serve(connection); });
    }
  }

  static bool Read(int connection, std::string& bytes, std::size_t size) {
    bytes.resize(size);
    return size == 0 ||
           recv(connection, bytes.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }

  void Serve(int connection) {
    for (std::string header, body; Read(connection, header, 12);) {
      if (!Read(connection, body, CdrReader(header, 8).ULong())) return;
      CdrReader request(body);
      const std::uint32_t id = request.ULong();
      const bool locates = header[7] == kGiopLocateRequest;
      std::string operation = kPlace;
      if (!locates) {
        request.ULong();   // flags
        request.UShort();  // the kind of the target
        request.Sequence();
        operation = request.Text();
      }
      if (!Called(operation)) {
        shutdown(connection, SHUT_RDWR);
        return;
      }
      const std::string reply = locates ? PlaceReply(id) : Reply(id, operation);
      send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
  }

  // False if the connection is to break.
  bool Called(const std::string& operation) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls_[operation];
    condition_.wait(lock, [&] { return silentAt_ != operation; });
    if (breaks_ == 0 || breaksAt_ != operation) return true;
    --breaks_;
    return false;
  }

  static std::string PlaceReply(std::uint32_t id) {
    constexpr unsigned kLocateReply = 4;
    CdrWriter body;
    body.ULong(id).ULong(1);  // here
    return GiopHeader(kLocateReply, 8) + body.Bytes();
  }

  static std::string Reply(std::uint32_t id, const std::string& operation) {
    CdrWriter body;
    body.ULong(id).ULong(0).ULong(0);  // no exception, no service contexts
    // A logon brings three references that are nil.
    for (int i = 0; operation == "Logon" && i < 3; ++i) body.Text("").ULong(0);
    const auto size = static_cast<std::uint32_t>(body.Bytes().size());
    return GiopHeader(kGiopReply, size) + body.Bytes();
  }

  const LoopbackListener listener_;
  std::thread acceptor_;
  std::vector<int> connections_;      // the acceptor's until it is joined
  std::vector<std::thread> threads_;  // as above

  mutable std::mutex mutex_;
  std::condition_variable condition_;
  std::string silentAt_;
  std::string breaksAt_;
  unsigned breaks_ = 0;
  std::map<std::string, std::size_t> calls_;
};

}  // namespace TestSupport
