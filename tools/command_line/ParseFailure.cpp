#include "command_line/ParseFailure.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

namespace CommandLine {
namespace {

// A word that is none of ours says more of what is wrong than what is missing for want of it.
std::string ReasonOf(const CLI::ParseError& error, const CLI::App& program) {
  const std::vector<std::string> unknown = program.remaining(true);
  return unknown.empty() ? error.what() : "unknown: " + unknown.front();
}

}  // namespace

int Explain(const CLI::ParseError& error, const CLI::App& program, int badUsage) {
  if (error.get_exit_code() == 0) return program.exit(error);
  std::string reason = ReasonOf(error, program);
  // It may quote what was given.
  std::replace(reason.begin(), reason.end(), '\n', ' ');
  std::cerr << program.get_name() << ": " << reason << " (see --help)\n";
  return badUsage;
}

}  // namespace CommandLine
