#include "security/OpenSsl.h"

#include <limits>
#include <stdexcept>

namespace OpenSsl {

ErrorScope::ErrorScope() {
  ERR_set_mark();
}

ErrorScope::~ErrorScope() {
  ERR_pop_to_mark();
}

std::string FailureText(const std::string& what) {
  const unsigned long error = ERR_peek_last_error();
  const char* const reason = error == 0 ? nullptr : ERR_reason_error_string(error);
  return reason == nullptr ? what : what + ": " + reason;
}

void Fail(const std::string& what) {
  throw std::runtime_error(FailureText(what));
}

BioPtr ReadFrom(const std::string& text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return nullptr;
  return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

BioPtr MemoryStream() {
  return BioPtr(BIO_new(BIO_s_mem()));
}

std::string TextOf(BIO* memoryStream) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(memoryStream, &data);
  return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace OpenSsl
