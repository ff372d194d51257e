// Child routers of one parent, from one process: each has a certificate, a port and a connection of
// its own.
//
// Takes commands on standard input and answers each with a line of JSON. FOLDER holds identities.
//   identity NAME         writes one of its own authority, a router's, into FOLDER/NAME
//   router HOST PORT      the parent, by its IOR port
//   child NAME            a child with the identity in FOLDER/NAME that is pushed to
//   children PUSHED BOTH  so many more children of the own authority, and so many that are fetched
//                         from and fetch; how fast they registered and logged on
//   delay MILLISECONDS    how long each envelope takes from here on
//   report                how old the stamped envelopes were that came since the last report, and
//                         how often a child was polled in that time
#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Latencies.h"
#include "TlsPeer.h"
#include "platform/Process.h"

namespace {

using Bench::Connection;
using Bench::Context;
using nlohmann::json;
using TestSupport::CdrReader;
using TestSupport::CdrWriter;
using TestSupport::GiopReplyMessage;

constexpr std::size_t kHeaderBytes = 12;
constexpr unsigned kLogonThreads = 8;
constexpr char kNoEnvelope[] = "IDL:BrelixMessaging/NoEnvelope:1.0";

// What all children do with what reaches them.
class Behaviour {
 public:
  void SetDelay(std::chrono::milliseconds delay) { delay_ = delay; }
  void Take(const std::string& message) {
    if (const auto age = Bench::AgeOfStamp(message)) {
      const std::lock_guard<std::mutex> guard(mutex_);
      latencies_.Add(*age);
    }
    std::this_thread::sleep_for(delay_.load());
  }
  void Polled() { ++polls_; }
  json Report() {
    const std::lock_guard<std::mutex> guard(mutex_);
    json report = std::exchange(latencies_, {}).Report();
    report["polls"] = polls_.exchange(0);
    return report;
  }

 private:
  std::atomic<std::chrono::milliseconds> delay_{};
  std::atomic<unsigned> polls_{0};
  std::mutex mutex_;
  Bench::Latencies latencies_;
};

std::string Sequence(const std::string& bytes) {
  return CdrWriter().ULong(static_cast<std::uint32_t>(bytes.size())).Raw(bytes).Bytes();
}

void PutNil(CdrWriter& out) {
  out.Text("").ULong(0);
}

// A reference to an object at a port with TLS.
void PutReference(CdrWriter& out, const std::string& type, const std::string& host,
                  std::uint16_t port, const std::string& key) {
  constexpr std::uint16_t kProtection = 0x66;  // both ends show certificates, nothing in the clear
  constexpr std::uint32_t kTlsComponent = 20;
  const std::string tls =
      CdrWriter().Octet(1).UShort(kProtection).UShort(kProtection).UShort(port).Bytes();
  CdrWriter profile;
  profile.Octet(1).Octet(1).Octet(2).Text(host).UShort(0);
  profile.Align(4).Raw(Sequence(key)).ULong(1).ULong(kTlsComponent).Raw(Sequence(tls));
  out.Text("IDL:BrelixMessaging/" + type + ":1.0").ULong(1).ULong(0);
  out.Align(4).Raw(Sequence(profile.Bytes()));
}

// The object key of the next reference; empty if it is nil.
std::string KeyOfNext(CdrReader& in) {
  in.Text();
  std::string key;
  for (std::uint32_t profiles = in.ULong(); profiles > 0; --profiles) {
    const std::uint32_t tag = in.ULong();
    CdrReader profile(in.Sequence(), 3);
    if (tag != 0) continue;
    profile.Text();
    profile.UShort();
    key = profile.Sequence();
  }
  return key;
}

std::string Message(unsigned type, const CdrWriter& body) {
  return TestSupport::GiopHeader(type, static_cast<std::uint32_t>(body.Bytes().size())) +
         body.Bytes();
}

// The answer to a request for any of a child's objects.
std::string Answer(Behaviour& behaviour, const std::string& message) {
  CdrReader in(message, kHeaderBytes);
  const std::uint32_t id = in.ULong();
  in.ULong();   // whether a response is expected: always
  in.UShort();  // addressing, by key
  in.Sequence();
  const std::string operation = in.Text();
  if (operation == "SendEnvelope") behaviour.Take(message);
  CdrWriter out;
  const bool nothing = operation == "GetEnvelope";
  if (nothing) behaviour.Polled();
  out.ULong(id)
      .ULong(nothing ? GiopReplyMessage::kUserException : GiopReplyMessage::kNoException)
      .ULong(0);
  out.Raw(std::string(-(kHeaderBytes + out.Bytes().size()) % 8, '\0'));
  if (nothing) out.Text(kNoEnvelope);
  if (operation == "NotificationThreshold") out.ULong(0);
  if (operation == "_is_a") out.Octet(1);
  return Message(TestSupport::kGiopReply, out);
}

class Child {
 public:
  Child(Behaviour& behaviour, const TestSupport::Issued& identity)
      : behaviour_(behaviour), context_(Bench::MakeContext(&identity)) {
    ACE_INET_Addr any(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_ANY));
    if (acceptor_.open(any) != 0) throw std::runtime_error("cannot listen");
    acceptor_.get_local_addr(any);
    port_ = any.get_port_number();
    std::thread([this] { Accept(); }).detach();
  }

  void LogOn(const Bench::Target& parent, bool both) {
    connection_ = std::make_unique<Connection>(context_, parent.host, parent.port);
    const std::string door = parent.KeyOf("Router");
    const std::string host = connection_->LocalAddress();
    CdrWriter objects;
    if (both) {
      PutNil(objects);
      PutReference(objects, "RouterSupplier", host, port_, "supplier");
      PutReference(objects, "NotifyConsumer", host, port_, "notify");
    } else {
      PutReference(objects, "RouterConsumer", host, port_, "consumer");
      PutNil(objects);
      PutNil(objects);
    }
    Must("Register", connection_->Call(door, "Register"));
    const GiopReplyMessage reply = connection_->Call(door, "Logon", objects.Bytes());
    Must("Logon", reply);
    if (!both) return;
    CdrReader given(reply.body);
    const GiopReplyMessage nothing = connection_->Call(KeyOfNext(given), "GetEnvelope");
    if (nothing.exceptionId != kNoEnvelope) Must("GetEnvelope", nothing);
  }

 private:
  static void Must(const char* operation, const GiopReplyMessage& reply) {
    if (reply.status == GiopReplyMessage::kNoException) return;
    throw std::runtime_error(std::string(operation) + ": " + reply.exceptionId);
  }
  void Accept() {
    ACE_SOCK_Stream stream;
    while (acceptor_.accept(stream) == 0) {
      std::thread([this, stream] { Serve(stream); }).detach();
    }
  }
  void Serve(const ACE_SOCK_Stream& stream) {
    try {
      Connection connection(context_, stream);
      while (const auto message = connection.Receive()) {
        const unsigned type = static_cast<unsigned char>((*message)[7]);
        if (type == TestSupport::kGiopRequest) {
          connection.Send(Answer(behaviour_, *message));
        } else if (type == TestSupport::kGiopLocateRequest) {
          constexpr unsigned kLocateReply = 4;
          CdrReader in(*message, kHeaderBytes);
          connection.Send(Message(kLocateReply, CdrWriter().ULong(in.ULong()).ULong(1)));
        } else {
          return;
        }
      }
    } catch (const std::runtime_error&) {  // the parent has gone
    }
  }

  Behaviour& behaviour_;
  const Context context_;
  ACE_SOCK_Acceptor acceptor_;
  std::uint16_t port_ = 0;
  std::unique_ptr<Connection> connection_;
};

class Family {
 public:
  explicit Family(std::filesystem::path folder) : folder_(std::move(folder)) {}

  json Execute(std::istream& line) {
    std::string word;
    line >> word;
    if (word == "identity") {
      line >> word;
      Bench::WriteIdentity(folder_ / word, ca_, word, {1});
    } else if (word == "router") {
      std::uint16_t port = 0;
      line >> word >> port;
      parent_ = Bench::Target::Of(word, port);
    } else if (word == "child") {
      line >> word;
      Add(Bench::ReadIdentity(folder_ / word)).LogOn(parent_, false);
    } else if (word == "children") {
      unsigned pushed = 0;
      unsigned both = 0;
      line >> pushed >> both;
      return AddMany(pushed, both);
    } else if (word == "delay") {
      unsigned milliseconds = 0;
      line >> milliseconds;
      behaviour_.SetDelay(std::chrono::milliseconds(milliseconds));
    } else if (word == "report") {
      return behaviour_.Report();
    } else {
      throw std::runtime_error("unknown command");
    }
    return json::object();
  }

 private:
  Child& Add(const TestSupport::Issued& identity) {
    children_.push_back(std::make_unique<Child>(behaviour_, identity));
    return *children_.back();
  }
  json AddMany(unsigned pushed, unsigned both) {
    const std::size_t first = children_.size();
    for (unsigned i = 0; i < pushed + both; ++i) {
      Add(ca_.Issue("child-" + std::to_string(children_.size() + 1), {1}));
    }
    std::atomic<std::size_t> next{first};
    std::atomic<unsigned> failed{0};
    const auto begin = Bench::SteadyClock::now();
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kLogonThreads; ++i) {
      threads.emplace_back([&] {
        for (std::size_t child = next++; child < children_.size(); child = next++) {
          try {
            children_[child]->LogOn(parent_, child >= first + pushed);
          } catch (const std::exception& exception) {
            std::fprintf(stderr, "child-%zu: %s\n", child + 1, exception.what());
            ++failed;
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    const double seconds = Bench::MicrosecondsSince(begin) / 1e6;
    return {{"failed", failed.load()},
            {"seconds", seconds},
            {"per_second", (pushed + both - failed) / seconds}};
  }

  const std::filesystem::path folder_;
  TestSupport::TestCa ca_;
  Behaviour behaviour_;
  Bench::Target parent_;
  std::vector<std::unique_ptr<Child>> children_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_children FOLDER\n");
    return 2;
  }
  try {
    Platform::RaiseDescriptorLimit();
    std::signal(SIGPIPE, SIG_IGN);  // the router may go first
    Family family(argv[1]);
    std::string line;
    while (std::getline(std::cin, line)) {
      std::istringstream words(line);
      std::printf("%s\n", family.Execute(words).dump().c_str());
      std::fflush(stdout);
    }
    std::quick_exit(0);  // threads still wait for the router
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_children: %s\n", exception.what());
    std::quick_exit(1);
  }
}
