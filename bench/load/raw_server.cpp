// The baseline: a bare server that takes envelopes over TLS and does nothing with them, or stores
// each in a file of its own as a router does.
#include <BrelixMessaging.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "broker/Encoding.h"
#include "broker/Orb.h"
#include "client_library/Identity.h"
#include "platform/Files.h"

namespace {

class BareConsumer : public POA_BrelixMessaging::RouterConsumer {
 public:
  BareConsumer(const std::string& folder, bool sync) : sync_(sync) {
    if (!folder.empty()) folder_ = std::make_unique<Platform::PublishFolder>(folder);
  }
  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override {
    if (!folder_) return;
    char name[16];
    std::snprintf(name, sizeof name, "%08x.msg", next_.fetch_add(1));
    const std::string text = Encoding::EncodeAny(envelope.client_info.custom_data);
    if (folder_->Publish(name, text, sync_) != 0) throw BrelixMessaging::Rejected();
    Platform::RemoveFile(folder_->Path() + name);
  }
  void Heartbeat() override {}

 private:
  const bool sync_;
  std::unique_ptr<Platform::PublishFolder> folder_;
  std::atomic<unsigned> next_{0};
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Takes envelopes over TLS until standard input ends.");
  std::string identity;
  std::string iorFile;
  std::string store;
  bool sync = false;
  app.add_option("--identity", identity)->required();
  app.add_option("--ior-file", iorFile, "where its reference is written")->required();
  app.add_option("--store", store, "one file a call in this folder, removed again");
  app.add_flag("--sync", sync, "each file is synced");
  CLI11_PARSE(app, argc, argv);

  const auto who = ClientLibrary::Identity::FromFolder(identity);
  Broker::OrbSettings settings;
  settings.configureTls = [&who](SSL_CTX* context) {
    who.Apply(context, ClientLibrary::Identity::Peers::AnyOfOurs);
  };
  Broker::Orb orb(argc, argv, settings);
  const CORBA::Object_var root = orb.Get()->resolve_initial_references("RootPOA");
  const PortableServer::POA_var poa = PortableServer::POA::_narrow(root);
  BareConsumer* const consumer = new BareConsumer(store.empty() ? store : store + "/", sync);
  const PortableServer::ObjectId_var id = poa->activate_object(consumer);
  const CORBA::Object_var reference = poa->id_to_reference(id);
  const PortableServer::POAManager_var manager = poa->the_POAManager();
  manager->activate();
  const CORBA::String_var ior = orb.Get()->object_to_string(reference);
  std::ofstream(iorFile + ".new") << ior.in();
  Platform::RenameFile(iorFile + ".new", iorFile);
  while (std::getchar() != EOF) {
  }
  return 0;
}
