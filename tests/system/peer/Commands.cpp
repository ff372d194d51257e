#include "Commands.h"

#include <algorithm>
#include <vector>

#include "client_library/EnvelopeText.h"
#include "client_library/Failure.h"

namespace Peer {

namespace {

std::chrono::milliseconds Seconds(const Json& arguments, const char* key, double otherwise) {
  return std::chrono::milliseconds(
      static_cast<std::int64_t>(arguments.value(key, otherwise) * 1000));
}

// A call on a reference that was never obtained is a fault of the test.
template <class Variable>
auto Have(const Variable& variable) {
  if (CORBA::is_nil(variable.in())) throw std::runtime_error("no such reference yet");
  return variable.in();
}

}  // namespace

Commands::Commands() {
  AddControl();
  AddRootCalls();
  AddClientCalls();
  AddRouterCalls();
}

Commands::~Commands() {
  // A call of the router that hangs here, or a job, must not hold up our end.
  behaviour_.Release();
  bulk_.Stop();
}

Json Commands::Execute(const Json& command) {
  try {
    const auto action = actions_.find(command.at("op").get<std::string>());
    if (action == actions_.end()) throw std::runtime_error("unknown command");
    return {{"ok", true}, {"result", action->second(command)}};
  } catch (const CORBA::Exception& exception) {
    return AsJson(exception);
  } catch (const ClientLibrary::Failure& failure) {
    return {{"ok", false}, {"error", failure.what()}, {"exception", failure.Exception()}};
  } catch (const std::exception& error) {
    return {{"ok", false}, {"error", error.what()}};
  }
}

void Commands::AddControl() {
  actions_["open"] = [this](const Json& arguments) {
    links_.Open(arguments);
    return Json();
  };
  actions_["close"] = [this](const Json&) {
    links_.Close();
    return Json();
  };
  actions_["connect"] = [this](const Json& arguments) { return Json(links_.Connect(arguments)); };
  actions_["reconnect"] = [this](const Json&) {
    links_.Reconnect();
    return Json();
  };
  actions_["behave"] = [this](const Json& arguments) {
    Behaviour::Rule rule;
    rule.raise = arguments.value("raise", std::string());
    rule.times = arguments.value("times", -1);
    rule.delayMilliseconds = arguments.value("delay_ms", 0);
    behaviour_.Set(arguments.at("method"), rule);
    return Json();
  };
  actions_["release"] = [this](const Json&) {
    behaviour_.Release();
    return Json();
  };
  actions_["calls"] = [this](const Json&) { return behaviour_.Calls(); };
  actions_["record"] = [this](const Json& arguments) {
    behaviour_.RecordInto(arguments.at("file"));
    return Json();
  };
  actions_["received"] = [this](const Json&) {
    return Json{{"count", behaviour_.ReceivedCount()}, {"last", behaviour_.Last()}};
  };
  actions_["wait_received"] = [this](const Json& arguments) {
    return Json(
        behaviour_.WaitForReceived(arguments.at("count"), Seconds(arguments, "timeout", 30)));
  };
  // An envelope for a router that polls us.
  actions_["supply"] = [this](const Json& arguments) {
    behaviour_.Supply(EnvelopeFrom(arguments));
    return Json();
  };
  actions_["to_supply"] = [this](const Json&) { return Json(behaviour_.ToSupply()); };
  actions_["threshold"] = [this](const Json& arguments) {
    behaviour_.SetThreshold(arguments.at("priority").get<CORBA::Long>());
    return Json();
  };
  actions_["bulk"] = [this](const Json& arguments) {
    bulk_.Start(arguments);
    return Json();
  };
  actions_["bulk_stop"] = [this](const Json&) {
    bulk_.Stop();
    return Json();
  };
  actions_["bulk_wait"] = [this](const Json& arguments) {
    return bulk_.Wait(Seconds(arguments, "timeout", 60));
  };
  actions_["measure"] = [this](const Json& arguments) { return Measure(arguments); };
  // The reference that the peer holds, as text.
  actions_["ior_of"] = [this](const Json& arguments) {
    const References now = links_.Get();
    CORBA::String_var ior = links_.Orb()->object_to_string(Target(arguments.at("target"), now));
    return Json(ior.in());
  };
  // What the reference's object says of its own type.
  actions_["is_a"] = [this](const Json& arguments) {
    const References now = links_.Get();
    return Json(bool(
        Target(arguments.at("target"), now)->_is_a(arguments.at("id").get<std::string>().c_str())));
  };
}

CORBA::Object_ptr Commands::Target(const std::string& name, const References& references) const {
  if (name == "root") return Have(references.root);
  if (name == "client") return Have(references.client);
  if (name == "router") return Have(references.router);
  if (name == "certification") return Have(references.certification);
  if (name == "messages") return Have(references.messages);
  if (name == "supplier") return Have(references.supplier);
  if (name == "router_consumer") return Have(references.routerConsumer);
  if (name == "router_supplier") return Have(references.routerSupplier);
  if (name == "router_notify") return Have(references.routerNotify);
  throw std::runtime_error("no such target");
}

// {"method": name of another command without side effects, "count"}: microseconds.
Json Commands::Measure(const Json& arguments) {
  const Action action = actions_.at(arguments.at("method").get<std::string>());
  const auto count = arguments.value("count", std::size_t{100});
  std::vector<double> times;
  for (std::size_t i = 0; i < count; ++i) {
    const auto start = Platform::Clock::Instance().SteadyNow();
    action(arguments);
    times.push_back(
        std::chrono::duration<double, std::micro>(Platform::Clock::Instance().SteadyNow() - start)
            .count());
  }
  std::sort(times.begin(), times.end());
  return {{"median", times[count / 2]}, {"p99", times[count * 99 / 100]}, {"max", times.back()}};
}

void Commands::AddRootCalls() {
  actions_["root.GetName"] = [this](const Json&) {
    CORBA::String_var name = Have(links_.Get().root)->GetName();
    return Json(name.in());
  };
  actions_["root.GetCACertificate"] = [this](const Json&) {
    CORBA::String_var text = Have(links_.Get().root)->GetCACertificate();
    return Json(text.in());
  };
  actions_["root.GetCRL"] = [this](const Json&) {
    CORBA::String_var text = Have(links_.Get().root)->GetCRL();
    return Json(text.in());
  };
  // Each door: whether a reference came.
  actions_["root.GetClient"] = [this](const Json&) {
    References now = links_.Get();
    now.client = Have(now.root)->GetClient();
    links_.Set(now);
    return Json(!CORBA::is_nil(now.client));
  };
  actions_["root.GetRouter"] = [this](const Json&) {
    References now = links_.Get();
    now.router = Have(now.root)->GetRouter();
    links_.Set(now);
    return Json(!CORBA::is_nil(now.router));
  };
  actions_["root.GetCertification"] = [this](const Json&) {
    References now = links_.Get();
    now.certification = Have(now.root)->GetCertification();
    links_.Set(now);
    return Json(!CORBA::is_nil(now.certification));
  };
  actions_["certification.CertLogon"] = [this](const Json& arguments) {
    References now = links_.Get();
    Have(now.certification)
        ->CertLogon(arguments.at("name").get<std::string>().c_str(), now.messages.out(),
                    now.supplier.out());
    links_.Set(now);
    return Json();
  };
  actions_["certification.CertLogoff"] = [this](const Json& arguments) {
    Have(links_.Get().certification)->CertLogoff(arguments.at("name").get<std::string>().c_str());
    return Json();
  };
}

void Commands::AddClientCalls() {
  actions_["client.Register"] = [this](const Json&) {
    Have(links_.Get().client)->Register();
    return Json();
  };
  actions_["client.Unregister"] = [this](const Json&) {
    Have(links_.Get().client)->Unregister();
    return Json();
  };
  actions_["client.Logoff"] = [this](const Json&) {
    Have(links_.Get().client)->Logoff();
    return Json();
  };
  // They get the client's door by themselves where it is missing.
  for (const char* form : {"Client.Logon", "Client.LogonPushPush", "Client.LogonPushPull"}) {
    const std::string name = form;
    actions_["client" + name.substr(6)] = [this, name](const Json& arguments) {
      links_.Logon(name, arguments);
      return Json();
    };
  }
  actions_["messages.SendMessage"] = [this](const Json& arguments) {
    return Json(
        ClientLibrary::FormatId(Have(links_.Get().messages)->SendMessage(MessageFrom(arguments))));
  };
  actions_["messages.Heartbeat"] = [this](const Json&) {
    Have(links_.Get().messages)->Heartbeat();
    return Json();
  };
  actions_["messages.Cancel"] = [this](const Json& arguments) {
    BrelixMessaging::MessageId id = 0;
    ClientLibrary::ParseId(arguments.at("id"), id);
    return Json(bool(Have(links_.Get().messages)
                         ->Cancel(arguments.value("originator", std::string()).c_str(), id)));
  };
  actions_["supplier.GetEnvelope"] = [this](const Json&) {
    BrelixMessaging::Envelope_var envelope = Have(links_.Get().supplier)->GetEnvelope();
    return ClientLibrary::ToJson(envelope);
  };
  actions_["supplier.AcknowledgeEnvelope"] = [this](const Json& arguments) {
    BrelixMessaging::MessageId id = 0;
    ClientLibrary::ParseId(arguments.at("id"), id);
    Have(links_.Get().supplier)
        ->AcknowledgeEnvelope(arguments.value("originator", std::string()).c_str(), id);
    return Json();
  };
}

void Commands::AddRouterCalls() {
  actions_["router.Register"] = [this](const Json&) {
    Have(links_.Get().router)->Register();
    return Json();
  };
  actions_["router.Unregister"] = [this](const Json&) {
    Have(links_.Get().router)->Unregister();
    return Json();
  };
  actions_["router.Logon"] = [this](const Json& arguments) {
    links_.Logon("Router.Logon", arguments);
    return Json();
  };
  actions_["router.Logoff"] = [this](const Json&) {
    Have(links_.Get().router)->Logoff();
    return Json();
  };
  actions_["router_consumer.SendEnvelope"] = [this](const Json& arguments) {
    Have(links_.Get().routerConsumer)->SendEnvelope(EnvelopeFrom(arguments));
    return Json();
  };
  actions_["router_consumer.Heartbeat"] = [this](const Json&) {
    Have(links_.Get().routerConsumer)->Heartbeat();
    return Json();
  };
  actions_["router_supplier.Heartbeat"] = [this](const Json&) {
    Have(links_.Get().routerSupplier)->Heartbeat();
    return Json();
  };
  actions_["router_supplier.GetEnvelope"] = [this](const Json&) {
    BrelixMessaging::Envelope_var envelope = Have(links_.Get().routerSupplier)->GetEnvelope();
    return ClientLibrary::ToJson(envelope);
  };
  actions_["router_supplier.AcknowledgeEnvelope"] = [this](const Json& arguments) {
    BrelixMessaging::MessageId id = 0;
    ClientLibrary::ParseId(arguments.at("id"), id);
    Have(links_.Get().routerSupplier)
        ->AcknowledgeEnvelope(arguments.value("originator", std::string()).c_str(), id);
    return Json();
  };
  actions_["router_notify.Notify"] = [this](const Json&) {
    Have(links_.Get().routerNotify)->Notify();
    return Json();
  };
  actions_["router_notify.NotificationThreshold"] = [this](const Json&) {
    return Json(Have(links_.Get().routerNotify)->NotificationThreshold());
  };
}

}  // namespace Peer
