#pragma once

#include <functional>
#include <map>
#include <string>

#include "Bulk.h"

namespace Peer {

// The peer's commands: one JSON object in, one out.
class Commands {
 public:
  Commands();
  ~Commands();
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // Never throws: {"ok": true, "result": ...}, or {"ok": false, "exception": name} for a CORBA
  // exception and {"ok": false, "error": text} for everything else.
  Json Execute(const Json& command);

 private:
  void AddControl();
  void AddRootCalls();
  void AddClientCalls();
  void AddRouterCalls();
  Json Measure(const Json& arguments);
  CORBA::Object_ptr Target(const std::string& name, const References& references) const;

  using Action = std::function<Json(const Json& arguments)>;

  Behaviour behaviour_;
  Links links_{behaviour_};
  Bulk bulk_{links_};
  std::map<std::string, Action> actions_;
};

}  // namespace Peer
