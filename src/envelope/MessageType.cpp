#include "envelope/MessageType.h"

#include <algorithm>

namespace MessageRouter {
namespace {

constexpr char kManagement[] = "EM";
constexpr char kSystem[] = "MS";
constexpr char kCertification[] = "Certification";

// ASCII alone: names in other alphabets are bytes here.
char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool BeginsWith(std::string_view text, std::string_view start) {
  return text.size() >= start.size() &&
         std::equal(start.begin(), start.end(), text.begin(),
                    [](char a, char b) { return Lower(a) == Lower(b); });
}

bool Same(std::string_view a, std::string_view b) {
  return a.size() == b.size() && BeginsWith(a, b);
}

}  // namespace

std::string FormatMessageType(const std::string& prefix, const std::string& name,
                              const std::string& suffix) {
  std::string type = prefix + "-" + name;
  if (!suffix.empty()) type += "-" + suffix;
  return type;
}

std::string ManagementMessageType(const std::string& name) {
  return FormatMessageType(kManagement, name);
}

std::string ManagementReplyType(const std::string& name) {
  return FormatMessageType(kManagement, name, "Reply");
}

std::string SystemMessageType(const std::string& name, const std::string& suffix) {
  return FormatMessageType(kSystem, name, suffix);
}

bool MatchMessageType(std::string_view type, std::string_view prefix, std::string_view name,
                      std::string_view suffix) {
  if (!prefix.empty()) {
    if (!BeginsWith(type, prefix)) return false;
    type.remove_prefix(prefix.size());
    if (type.empty() || type.front() != '-') return false;
    type.remove_prefix(1);
  }
  if (!BeginsWith(type, name)) return false;
  type.remove_prefix(name.size());
  if (type.empty()) return suffix.empty() || suffix == "*";
  if (type.front() != '-' || suffix.empty()) return false;
  return suffix == "*" || BeginsWith(type.substr(1), suffix);
}

bool IsManagementType(std::string_view type) {
  return BeginsWith(type, kManagement);
}

bool IsSystemType(std::string_view type) {
  return BeginsWith(type, kSystem);
}

bool IsCertificationType(std::string_view type) {
  return BeginsWith(type, kCertification);
}

bool IsCertificationRequest(std::string_view type) {
  return Same(type, "Certification.CertRequest") || Same(type, "Certification.UniqueTokenRequest");
}

}  // namespace MessageRouter
