#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "certmgr/CertificateAuthority.h"

namespace Certmgr {

enum class Command : unsigned char { Init, Issue };

struct Options {
  Command command = Command::Init;
  std::string authority;  // the authority's folder
  std::string out;        // the folder of the issued certificate
  std::string name;
  std::vector<MessageRouter::Role> roles;
  int bits = 0;
  Validity validity;
};

// Nothing if there is nothing to do: `status` is then the program's exit status, and what there is
// to say has been said. `now` in seconds since 1970, UTC.
std::optional<Options> ParseCommandLine(int argc, char** argv, std::int64_t now, int& status);

}  // namespace Certmgr
