#pragma once

#include <CLI/CLI.hpp>

namespace CommandLine {

// Tells why that program's arguments did not parse, and returns its exit status: help and version
// are asked for, and go to standard output; a fault is one line on standard error, and status
// `badUsage`.
int Explain(const CLI::ParseError& error, const CLI::App& program, int badUsage);

}  // namespace CommandLine
