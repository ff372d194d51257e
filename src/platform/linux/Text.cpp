#include "platform/Text.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace Platform {
namespace {

// A thread's converter for one direction; making one costs more than using it.
class Converter {
 public:
  Converter(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
  ~Converter() {
    if (IsOpen()) iconv_close(handle_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  std::optional<std::string> Convert(const std::string& text) {
    if (!IsOpen()) return std::nullopt;
    iconv(handle_, nullptr, nullptr, nullptr, nullptr);  // what an earlier, broken text left
    std::string result;
    char* input = const_cast<char*>(text.data());
    std::size_t left = text.size();
    if (!Run(&input, &left, result) || !Run(nullptr, nullptr, result)) return std::nullopt;
    return result;
  }

 private:
  bool IsOpen() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  // Without input: ends the text.
  bool Run(char** input, std::size_t* left, std::string& result) {
    while (true) {
      std::array<char, 512> buffer;
      char* output = buffer.data();
      std::size_t room = buffer.size();
      const std::size_t done = iconv(handle_, input, left, &output, &room);
      const bool full = done == static_cast<std::size_t>(-1) && errno == E2BIG;
      result.append(buffer.data(), buffer.size() - room);
      if (!full) return done != static_cast<std::size_t>(-1);
    }
  }

  iconv_t handle_;
};

// These stand for themselves in both encodings. Most names consist of nothing else.
bool IsDirect(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr(" '(),-./:?", c) != nullptr);
}

bool IsAllDirect(const std::string& text) {
  return std::all_of(text.begin(), text.end(), &IsDirect);
}

}  // namespace

std::optional<std::string> Utf7ToLocal(const std::string& text) {
  if (IsAllDirect(text)) return text;
  thread_local Converter converter("UTF-8", "UTF-7");
  return converter.Convert(text);
}

std::optional<std::string> LocalToUtf7(const std::string& text) {
  if (IsAllDirect(text)) return text;
  thread_local Converter converter("UTF-7", "UTF-8");
  return converter.Convert(text);
}

}  // namespace Platform
