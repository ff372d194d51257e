// Sends messages one after the other: as a neighbour router pushes them over one link, or as a
// client.
#include <BrelixMessaging.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Latencies.h"
#include "broker/Orb.h"
#include "client_library/Failure.h"
#include "client_library/Identity.h"
#include "client_library/IorPort.h"

namespace {

using Bench::SteadyClock;
using BrelixMessaging::Envelope;

Envelope MakeEnvelope(const std::string& router, const std::string& destination,
                      const std::string& certificate, const std::string& text) {
  Envelope envelope;
  envelope.originator = (router + ".sender").c_str();
  envelope.originator_certificate = certificate.c_str();
  CORBA::ULong hops = 0;
  for (std::size_t begin = 0; begin <= destination.size();) {
    const std::size_t end = std::min(destination.find('.', begin), destination.size());
    envelope.physical_destination.length(hops + 1);
    envelope.physical_destination[hops++] = destination.substr(begin, end - begin).c_str();
    begin = end + 1;
  }
  envelope.timestamps.length(2);
  envelope.timestamps[0].name = "sender";
  envelope.timestamps[0].utc_time = 0;
  envelope.timestamps[1].name = router.c_str();
  envelope.timestamps[1].utc_time = 0;
  envelope.message_id = 0;
  envelope.client_info.destination = destination.c_str();
  envelope.client_info.prio = 0;
  envelope.client_info.ttl = 0;
  envelope.client_info.type = "Bench.Load";
  envelope.client_info.delivery_options = "";
  envelope.client_info.custom_data <<= text.c_str();
  return envelope;
}

BrelixMessaging::MessageRouter_var RootOfRouter(CORBA::ORB_ptr orb, const std::string& host,
                                                std::uint16_t port) {
  const std::string ior = ClientLibrary::FetchIor(host, port, std::chrono::seconds(10));
  const CORBA::Object_var object = orb->string_to_object(ior.c_str());
  return BrelixMessaging::MessageRouter::_unchecked_narrow(object);
}

BrelixMessaging::RouterConsumer_var ConsumerOfRouter(
    const BrelixMessaging::MessageRouter_var& root) {
  const BrelixMessaging::Router_var router = root->GetRouter();
  try {
    router->Register();
  } catch (const BrelixMessaging::AlreadyRegistered&) {
  }
  BrelixMessaging::RouterSupplier_var supplier;
  BrelixMessaging::RouterConsumer_var consumer;
  BrelixMessaging::NotifyConsumer_var notify;
  router->Logon(BrelixMessaging::RouterConsumer::_nil(), BrelixMessaging::RouterSupplier::_nil(),
                BrelixMessaging::NotifyConsumer::_nil(), supplier.out(), consumer.out(),
                notify.out());
  return consumer;
}

BrelixMessaging::MessageConsumer_var ConsumerOfMessages(
    const BrelixMessaging::MessageRouter_var& root) {
  const BrelixMessaging::Client_var client = root->GetClient();
  try {
    client->Register();
  } catch (const BrelixMessaging::AlreadyRegistered&) {
  }
  BrelixMessaging::MessageConsumer_var consumer;
  BrelixMessaging::EnvelopeSupplier_var supplier;
  client->LogonPushPull(BrelixMessaging::NotifyConsumer::_nil(), consumer.out(), supplier.out());
  return consumer;
}

struct Load {
  std::vector<std::string> destinations;  // in turn
  unsigned count = 10000;
  unsigned warmup = 200;
  std::size_t payload = 1024;
  double rate = 0;
  bool stamp = false;
  std::string arrivals;
};

// What a bench_receiver tells of each message that has arrived, by way of a named pipe.
class Arrivals {
 public:
  explicit Arrivals(const std::string& pipe) {
    if (pipe.empty()) return;
    stream_.open(pipe, std::ios::binary);
    if (!stream_.is_open()) throw std::runtime_error("can't open " + pipe);
  }
  void AwaitOne() {
    if (stream_.is_open() && stream_.get() == std::ifstream::traits_type::eof()) {
      throw std::runtime_error("the receiver has ended");
    }
  }

 private:
  std::ifstream stream_;
};

// Calls `send` with each envelope; prints how long that took.
void Run(const Load& load, std::vector<Envelope>& envelopes,
         const std::function<void(const Envelope&)>& send) {
  CORBA::Long id = 1;
  bool warm = false;
  const auto next = [&]() -> const Envelope& {
    Envelope& envelope = envelopes[static_cast<std::size_t>(id) % envelopes.size()];
    envelope.message_id = id++;
    if (load.stamp && warm) {
      envelope.client_info.custom_data <<= Bench::StampedText(load.payload).c_str();
    }
    return envelope;
  };
  Arrivals arrivals(load.arrivals);
  const auto sendNext = [&] {
    send(next());
    arrivals.AwaitOne();
  };
  for (unsigned i = 0; i < load.warmup; ++i) sendNext();
  warm = true;
  Bench::Latencies latencies;
  const auto begin = SteadyClock::now();
  for (unsigned i = 0; i < load.count; ++i) {
    if (load.rate > 0) {
      std::this_thread::sleep_until(
          begin + std::chrono::microseconds(static_cast<std::int64_t>(i * 1e6 / load.rate)));
    }
    const auto start = SteadyClock::now();
    sendNext();
    latencies.Add(Bench::MicrosecondsSince(start));
  }
  const double seconds = Bench::MicrosecondsSince(begin) / 1e6;
  nlohmann::json result = latencies.Report();
  result["seconds"] = seconds;
  result["per_second"] = load.count / seconds;
  result["processor_us"] = Bench::ProcessorMicroseconds() / (load.warmup + load.count);
  std::printf("%s\n", result.dump().c_str());
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Sends messages and prints how fast, as one line of JSON.");
  std::string identity;
  std::string iorFile;
  std::string host = "localhost";
  std::uint16_t port = 0;
  bool asClient = false;
  Load load;
  app.add_option("--identity", identity)->required();
  app.add_option("--ior-file", iorFile, "the bare server's reference");
  app.add_option("--host", host);
  app.add_option("--port", port, "the router's IOR port");
  app.add_flag("--as-client", asClient, "else as a router, with ids of its own");
  app.add_option("--destination", load.destinations, "several take turns; default: receiver");
  app.add_option("--count", load.count);
  app.add_option("--warmup", load.warmup);
  app.add_option("--payload", load.payload, "bytes");
  app.add_option("--rate", load.rate, "a second; default: as fast as possible");
  app.add_option("--arrivals", load.arrivals,
                 "a named pipe, as of bench_receiver: each message waits for the one before");
  app.add_flag("--stamp", load.stamp, "each payload tells when it was sent");
  CLI11_PARSE(app, argc, argv);
  if (load.destinations.empty()) load.destinations = {"receiver"};

  const auto who = ClientLibrary::Identity::FromFolder(identity);
  std::ifstream pem(identity + "/certificate.pem");
  const std::string certificate((std::istreambuf_iterator<char>(pem)), {});
  Broker::OrbSettings settings;
  settings.server = false;
  settings.configureTls = [&who](SSL_CTX* context) { who.Apply(context); };
  Broker::Orb orb(argc, argv, settings);
  try {
    std::vector<Envelope> envelopes;
    for (const std::string& destination : load.destinations) {
      envelopes.push_back(
          MakeEnvelope(who.CommonName(), destination, certificate, std::string(load.payload, 'x')));
    }
    if (asClient) {
      const auto consumer = ConsumerOfMessages(RootOfRouter(orb.Get(), host, port));
      Run(load, envelopes,
          [&](const Envelope& envelope) { consumer->SendMessage(envelope.client_info); });
      return 0;
    }
    BrelixMessaging::RouterConsumer_var consumer;
    if (iorFile.empty()) {
      consumer = ConsumerOfRouter(RootOfRouter(orb.Get(), host, port));
    } else {
      std::ifstream stream(iorFile);
      std::string ior;
      stream >> ior;
      const CORBA::Object_var object = orb.Get()->string_to_object(ior.c_str());
      consumer = BrelixMessaging::RouterConsumer::_unchecked_narrow(object);
    }
    Run(load, envelopes, [&](const Envelope& envelope) { consumer->SendEnvelope(envelope); });
    return 0;
  } catch (const CORBA::Exception& exception) {
    std::fprintf(stderr, "bench_sender: %s\n", ClientLibrary::ShortName(exception).c_str());
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_sender: %s\n", exception.what());
  }
  return 1;
}
