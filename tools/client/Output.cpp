#include "client/Output.h"

#include <cstdio>

bool Output::Write(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}
