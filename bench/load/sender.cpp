// Pushes envelopes over one link, one after the other, as a neighbour router does.
#include <BrelixMessaging.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "broker/Orb.h"
#include "client_library/Failure.h"
#include "client_library/Identity.h"
#include "client_library/IorPort.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

BrelixMessaging::Envelope MakeEnvelope(const std::string& router, const std::string& destination,
                                       const std::string& certificate, std::size_t payload) {
  BrelixMessaging::Envelope envelope;
  envelope.originator = (router + ".sender").c_str();
  envelope.originator_certificate = certificate.c_str();
  envelope.physical_destination.length(1);
  envelope.physical_destination[0] = destination.c_str();
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
  envelope.client_info.custom_data <<= std::string(payload, 'x').c_str();
  return envelope;
}

BrelixMessaging::RouterConsumer_var ConsumerOfRouter(CORBA::ORB_ptr orb, const std::string& host,
                                                     std::uint16_t port) {
  const std::string ior = ClientLibrary::FetchIor(host, port, std::chrono::seconds(10));
  const CORBA::Object_var object = orb->string_to_object(ior.c_str());
  const auto root =
      BrelixMessaging::MessageRouter_var(BrelixMessaging::MessageRouter::_unchecked_narrow(object));
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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Pushes envelopes and prints how fast, as one line of JSON.");
  std::string identity;
  std::string iorFile;
  std::string host = "localhost";
  std::string destination = "receiver";
  std::string certificateFile;
  std::uint16_t port = 0;
  unsigned count = 10000;
  unsigned warmup = 200;
  std::size_t payload = 1024;
  app.add_option("--identity", identity)->required();
  app.add_option("--ior-file", iorFile, "the bare server's reference");
  app.add_option("--host", host);
  app.add_option("--port", port, "the router's IOR port");
  app.add_option("--destination", destination);
  app.add_option("--count", count);
  app.add_option("--warmup", warmup);
  app.add_option("--payload", payload, "bytes");
  CLI11_PARSE(app, argc, argv);

  const auto who = ClientLibrary::Identity::FromFolder(identity);
  std::ifstream pem(identity + "/certificate.pem");
  const std::string certificate((std::istreambuf_iterator<char>(pem)), {});
  Broker::OrbSettings settings;
  settings.server = false;
  settings.configureTls = [&who](SSL_CTX* context) { who.Apply(context); };
  Broker::Orb orb(argc, argv, settings);
  try {
    BrelixMessaging::RouterConsumer_var consumer;
    if (iorFile.empty()) {
      consumer = ConsumerOfRouter(orb.Get(), host, port);
    } else {
      std::ifstream stream(iorFile);
      std::string ior;
      stream >> ior;
      const CORBA::Object_var object = orb.Get()->string_to_object(ior.c_str());
      consumer = BrelixMessaging::RouterConsumer::_unchecked_narrow(object);
    }
    auto envelope = MakeEnvelope(who.CommonName(), destination, certificate, payload);
    CORBA::Long id = 1;
    for (unsigned i = 0; i < warmup; ++i) {
      envelope.message_id = id++;
      consumer->SendEnvelope(envelope);
    }
    std::vector<double> microseconds;
    microseconds.reserve(count);
    const auto begin = SteadyClock::now();
    auto last = begin;
    for (unsigned i = 0; i < count; ++i) {
      envelope.message_id = id++;
      consumer->SendEnvelope(envelope);
      const auto now = SteadyClock::now();
      microseconds.push_back(std::chrono::duration<double, std::micro>(now - last).count());
      last = now;
    }
    const double seconds = std::chrono::duration<double>(last - begin).count();
    std::sort(microseconds.begin(), microseconds.end());
    const nlohmann::json result = {{"count", count},
                                   {"seconds", seconds},
                                   {"per_second", count / seconds},
                                   {"median_us", microseconds[count / 2]},
                                   {"p99_us", microseconds[count * 99 / 100]}};
    std::printf("%s\n", result.dump().c_str());
    return 0;
  } catch (const CORBA::Exception& exception) {
    std::fprintf(stderr, "bench_sender: %s\n", ClientLibrary::ShortName(exception).c_str());
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_sender: %s\n", exception.what());
  }
  return 1;
}
