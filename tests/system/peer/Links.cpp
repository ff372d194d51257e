#include "Links.h"

#include <openssl/ssl.h>

#include <vector>

#include "Servants.h"
#include "client_library/Failure.h"
#include "client_library/IorPort.h"

namespace Peer {

void Links::Open(const Json& arguments) {
  if (orb_ != nullptr) throw std::runtime_error("already open");
  const Json folder = arguments.value("identity", Json());
  identity_ = folder.is_string()
                  ? ClientLibrary::Identity::FromFolder(folder.get<std::string>())
                  : ClientLibrary::Identity::Anonymous(arguments.at("ca").get<std::string>());
  server_ = arguments.value("server", true);
  limit_ =
      std::chrono::milliseconds(static_cast<std::int64_t>(arguments.value("timeout", 30.0) * 1000));
  const bool weak = arguments.value("weak", false);

  Broker::OrbSettings settings;
  settings.server = server_;
  settings.configureTls = [identity = *identity_, weak](SSL_CTX* context) {
    if (weak) SSL_CTX_set_security_level(context, 0);
    identity.Apply(context, ClientLibrary::Identity::Peers::AnyOfOurs);
  };
  std::vector<std::string> words{"peer"};
  for (const auto& word : arguments.value("orb_args", Json::array())) words.push_back(word);
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(words.size());
  orb_ = std::make_unique<Broker::Orb>(argc, argv.data(), settings);
  omniORB::setClientCallTimeout(static_cast<CORBA::ULong>(limit_.count()));
  omniORB::setClientConnectTimeout(static_cast<CORBA::ULong>(limit_.count()));
  if (server_) ActivateOwnObjects();
}

void Links::ActivateOwnObjects() {
  CORBA::Object_var object = orb_->Get()->resolve_initial_references("RootPOA");
  PortableServer::POA_var adapter = PortableServer::POA::_narrow(object);
  PortableServer::Servant_var<EnvelopeConsumerServant> consumer =
      new EnvelopeConsumerServant(behaviour_);
  ownConsumer_ = consumer->_this();
  PortableServer::Servant_var<RouterConsumerServant> routerConsumer =
      new RouterConsumerServant(behaviour_);
  ownRouterConsumer_ = routerConsumer->_this();
  PortableServer::Servant_var<RouterSupplierServant> supplier =
      new RouterSupplierServant(behaviour_);
  ownSupplier_ = supplier->_this();
  PortableServer::Servant_var<NotifyConsumerServant> notify = new NotifyConsumerServant(behaviour_);
  ownNotify_ = notify->_this();
  PortableServer::POAManager_var manager = adapter->the_POAManager();
  manager->activate();
}

void Links::Close() {
  behaviour_.Release();
  Set(References());
  ownConsumer_ = BrelixMessaging::EnvelopeConsumer::_nil();
  ownRouterConsumer_ = BrelixMessaging::RouterConsumer::_nil();
  ownSupplier_ = BrelixMessaging::RouterSupplier::_nil();
  ownNotify_ = BrelixMessaging::NotifyConsumer::_nil();
  orb_.reset();
}

std::string Links::Connect(const Json& arguments) {
  if (orb_ == nullptr) throw std::runtime_error("not open");
  const std::string ior =
      arguments.contains("ior")
          ? arguments["ior"].get<std::string>()
          : ClientLibrary::FetchIor(arguments.value("host", std::string("localhost")),
                                    arguments.at("port").get<std::uint16_t>(), limit_);
  CORBA::Object_var object = orb_->Get()->string_to_object(ior.c_str());
  References fresh;
  fresh.root = BrelixMessaging::MessageRouter::_unchecked_narrow(object);
  Set(fresh);
  ThreadHelper::Guard guard(mutex_);
  lastConnect_ = arguments;
  return ior;
}

void Links::Reconnect() {
  Json connect;
  Json logon;
  std::string form;
  {
    ThreadHelper::Guard guard(mutex_);
    connect = lastConnect_;
    logon = lastLogon_;
    form = lastForm_;
  }
  Connect(connect);
  if (!form.empty()) Logon(form, logon);
}

void Links::Logon(const std::string& form, const Json& arguments) {
  References now = Get();
  const auto offered = [&](const char* what, bool otherwise) {
    return arguments.value(what, otherwise);
  };
  BrelixMessaging::NotifyConsumer_ptr notify =
      offered("notify", false) ? ownNotify_.in() : BrelixMessaging::NotifyConsumer::_nil();
  if (form == "Router.Logon") {
    if (CORBA::is_nil(now.router)) now.router = now.root->GetRouter();
    now.router->Logon(
        offered("consumer", true) ? ownRouterConsumer_.in()
                                  : BrelixMessaging::RouterConsumer::_nil(),
        offered("supplier", false) ? ownSupplier_.in() : BrelixMessaging::RouterSupplier::_nil(),
        notify, now.routerSupplier.out(), now.routerConsumer.out(), now.routerNotify.out());
  } else {
    if (CORBA::is_nil(now.client)) now.client = now.root->GetClient();
    BrelixMessaging::EnvelopeConsumer_ptr consumer =
        offered("consumer", true) ? ownConsumer_.in() : BrelixMessaging::EnvelopeConsumer::_nil();
    if (form == "Client.Logon") {
      now.client->Logon(consumer, notify, now.messages.out(), now.supplier.out());
    } else if (form == "Client.LogonPushPush") {
      now.client->LogonPushPush(consumer, now.messages.out());
    } else {
      now.client->LogonPushPull(notify, now.messages.out(), now.supplier.out());
    }
  }
  Set(now);
  ThreadHelper::Guard guard(mutex_);
  lastForm_ = form;
  lastLogon_ = arguments;
}

References Links::Get() const {
  ThreadHelper::Guard guard(mutex_);
  return references_;
}

void Links::Set(const References& references) {
  ThreadHelper::Guard guard(mutex_);
  references_ = references;
}

}  // namespace Peer
