#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The text of envelope files: one "[Key] value" a line. A line without "[" goes on with the value
// of the line before, so that a value can hold line ends.
namespace MessageRouter::EnvelopeText {

void AppendField(std::string& text, std::string_view key, std::string_view value);

// Whether a value comes out of a file as it went in: its later lines have no "[", which would start
// another field, and its first line is not empty, which would leave the field out.
bool ReadsBack(std::string_view value);

struct Field {
  std::string_view key;
  std::string_view firstLine;  // of the value
  std::string_view value;      // valid until the next field is read
};

// Takes a text apart, in time and memory linear in its length.
// The text must outlive the reader.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : rest_(text) {}
  // The next field that has a value. False at the end.
  bool Next(Field& field);

 private:
  bool NextLine(std::string_view& line);

  std::string_view rest_;
  bool atEnd_ = false;     // the line just read ended with the text
  bool finished_ = false;  // nothing is left to read
  bool pending_ = false;   // next_ is a field whose first line has been read
  Field next_;
  std::string joined_;  // a value of several lines
};

// Digits behind blanks and a sign, up to the first other character; 0 where there are none. What
// does not fit, a negative number included, is the largest 32-bit number.
std::uint32_t ParseUnsigned(std::string_view text);
// Whether the text starts with an integer that is not zero.
bool ParseFlag(std::string_view text);

}  // namespace MessageRouter::EnvelopeText
