#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "logging/Streamable.h"

namespace MessageRouter {

// One passage: "(name,seconds)". A name with a comma does not survive a read.
class Timestamp : public Streamable {
 public:
  Timestamp() = default;
  Timestamp(std::string stampName, std::int64_t stampTime);
  std::ostream& write(std::ostream& stream) const override;
  std::istream& read(std::istream& stream) override;
  // The text form, behind what `text` has.
  void AppendTo(std::string& text) const;

  std::string name;
  std::int64_t time = 0;  // seconds since 1970
};

// "(count,stamp,stamp...)"
class Timestamps : public Streamable {
 public:
  std::ostream& write(std::ostream& stream) const override;
  // A count that can't be read fails the stream; a broken stamp ends the list.
  std::istream& read(std::istream& stream) override;
  void AppendTo(std::string& text) const;
  // As `read` from a stream of the text, and much faster for what AppendTo wrote. False where that
  // stream would have failed.
  bool Parse(std::string_view text);

  void Append(const std::string& name);  // now
  void Append(const std::string& name, std::int64_t time);

  std::vector<Timestamp> stamps;

 private:
  bool ParsePlain(std::string_view text);
};

}  // namespace MessageRouter
