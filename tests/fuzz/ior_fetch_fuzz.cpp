#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "logging/Log.h"
#include "parent/IorParser.h"
#include "parent/ParentSearch.h"
#include "support/FakeClock.h"

// The fetch of the parent's IOR, from two addresses that send what they like, in what pieces they
// like. The input is what they do: an octet for each step, followed by what it sends. They do one
// step whenever the fetch looks at the clock, so that nothing is left to chance and nobody waits.

namespace {

using MessageRouter::kMaxIorText;

constexpr std::uint32_t kReceiveSeconds = 10;

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

class Peers : public TestSupport::FakeClock, public MessageRouter::ParentSearchObserver {
 public:
  explicit Peers(std::string_view steps) : steps_(steps) {}
  ~Peers() override { End(false); }

  int Connect(ACE_SOCK_Stream& stream) {
    CheckLast({});
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no sockets");
    // A peer that goes without having read this resets the connection.
    Require(write(ends[0], "?", 1) == 1, "no question");
    stream.set_handle(ends[0]);
    peer_ = ends[1];
    sent_.clear();
    late_ = reset_ = false;
    connected_ = true;
    return 0;
  }
  bool Stopping() const { return stopping_; }

  SteadyTime SteadyNow() const override {
    const_cast<Peers*>(this)->Step();
    return FakeClock::SteadyNow();
  }

  void NameNotResolved(const std::string&) override { Require(false, "a name was looked up"); }
  void ListUsedUp() override { ++usedUp_; }
  void Unreachable(const std::string&) override { ++unreachable_; }
  void Found(const std::string&, std::uint32_t) override { ++found_; }

  void Check(const std::string& text) {
    CheckLast(text);
    Require(found_ == (text.empty() ? 0 : 1), "found without a text, or a text without that");
    Require(usedUp_ == (text.empty() && !stopping_ ? 1 : 0), "the end of the list");
    Require(unreachable_ <= 2, "more failures than addresses");
  }

 private:
  // What the connection before, or the last one, had to give.
  void CheckLast(const std::string& text) {
    if (!connected_) return;
    Require(text.size() <= kMaxIorText, "too long a text");
    Require(sent_.compare(0, text.size(), text) == 0, "not what was sent");
    if (late_ || stopping_) return;
    Require(peer_ < 0 || sent_.size() > kMaxIorText, "the text was taken before its end");
    const bool whole = !reset_ && sent_.size() <= kMaxIorText;
    Require(text == (whole ? sent_ : std::string()), "half a text, or one of a broken connection");
  }

  void Step() {
    if (peer_ < 0) return;
    if (steps_.empty()) return End(false);
    const auto step = static_cast<std::uint8_t>(steps_.front());
    steps_.remove_prefix(1);
    const std::size_t amount = (step >> 3) + std::size_t{1};
    switch (step & 7) {
      case 4:  // a long piece of one octet
        if (steps_.empty()) return End(false);
        Send(std::string(amount * 512, steps_.front()));
        steps_.remove_prefix(1);
        return;
      case 5:
        return Delay();
      case 6:
        return End(false);
      case 7:
        if (amount % 4 != 0) return End(true);
        stopping_ = true;
        return Delay();
      default:
        Send(std::string(steps_.substr(0, amount)));
        steps_.remove_prefix(std::min(amount, steps_.size()));
    }
  }
  // Nothing comes, for longer than a receive may take.
  void Delay() {
    late_ = true;
    Advance(std::chrono::seconds(kReceiveSeconds + 1));
  }
  void Send(const std::string& piece) {
    if (piece.empty()) return End(false);
    const ssize_t sent = send(peer_, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) sent_.append(piece, 0, static_cast<std::size_t>(sent));
  }
  void End(bool reset) {
    if (peer_ < 0) return;
    char question = 0;
    if (!reset) Require(read(peer_, &question, 1) == 1, "no question to read");
    reset_ = reset;
    close(peer_);
    peer_ = -1;
  }

  std::string_view steps_;
  int peer_ = -1;  // of the connection at hand, until its peer ends it
  bool connected_ = false;
  std::string sent_;
  bool late_ = false;
  bool reset_ = false;
  bool stopping_ = false;
  int found_ = 0;
  int usedUp_ = 0;
  int unreachable_ = 0;
};

ACE_INET_Addr NoLookUp(const std::string&, std::uint16_t port) {
  return ACE_INET_Addr(port, static_cast<ACE_UINT32>(0xC0000201));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Lines about every input would be all that it does.
  static const bool quiet = (MessageRouter::SetLogMask(0), true);
  static_cast<void>(quiet);
  Peers peers(std::string_view(reinterpret_cast<const char*>(data), size));
  MessageRouter::ParentSearch search(
      peers, NoLookUp,
      [&peers](ACE_SOCK_Stream& stream, const ACE_INET_Addr&) { return peers.Connect(stream); },
      [&peers] { return peers.Stopping(); });
  const std::string text = search.Run("first,second", 8192, kReceiveSeconds);
  peers.Check(text);
  MessageRouter::ValidateIor(text, NoLookUp);
  return 0;
}
