// brelix-test-peer: plays a client, a neighbour router or a stranger towards a router. One JSON
// command a line on standard input, one JSON answer a line on standard output; the end of the input
// ends the program. The commands stand in Commands.cpp.

#include <iostream>
#include <string>

#include "Commands.h"
#include "logging/Log.h"

int main() {
  MessageRouter::SetLogMask(0);
  omniORB::traceLevel = 0;
  Peer::Commands commands;
  std::string line;
  while (std::getline(std::cin, line)) {
    const Peer::Json command = Peer::Json::parse(line, nullptr, false);
    const Peer::Json answer = command.is_object()
                                  ? commands.Execute(command)
                                  : Peer::Json{{"ok", false}, {"error", "no JSON object"}};
    std::cout << answer.dump() << std::endl;
  }
  return 0;
}
