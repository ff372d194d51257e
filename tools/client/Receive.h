#pragma once

#include "client/CommandLine.h"
#include "client/Output.h"
#include "client_library/Identity.h"

// Prints envelopes until the count, the time or an interrupt ends it. Returns the exit status;
// throws ClientLibrary::Failure. Make no thread before: it takes the process's signals.
int Receive(const Options& options, const ClientLibrary::Identity& identity, Output& output);
