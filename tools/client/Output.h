#pragma once

#include <string>

// Standard output. Everything written has left the process when Write returns true.
class Output {
 public:
  virtual ~Output() = default;
  virtual bool Write(const std::string& text);
};
