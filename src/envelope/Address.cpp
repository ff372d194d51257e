#include "envelope/Address.h"

#include <cstddef>

#include "platform/Text.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {
namespace {

// Enough to recognise a name or type by.
constexpr std::size_t kShownLength = 1024;

}  // namespace

std::vector<std::string> SplitAddress(std::string_view text) {
  std::vector<std::string> components;
  while (!text.empty()) {
    const std::size_t dot = text.find('.');
    const std::string_view component = text.substr(0, dot);
    if (!component.empty()) components.emplace_back(component);
    if (dot == std::string_view::npos) break;
    text.remove_prefix(dot + 1);
  }
  return components;
}

std::string JoinAddress(const std::vector<std::string>& components) {
  std::string address;
  for (const std::string& component : components) {
    if (&component != &components.front()) address += '.';
    address += component;
  }
  return address;
}

std::string TidyAddress(std::string_view text) {
  std::string address;
  address.reserve(text.size());
  for (const char c : text) {
    if (c != '.' || (!address.empty() && address.back() != '.')) address += c;
  }
  if (!address.empty() && address.back() == '.') address.pop_back();
  return address;
}

std::string QualifyWithRouter(const std::string& name) {
  return OwnIdentity::CommonName() + "." + name;
}

std::string EnsureQualified(const std::string& name) {
  const std::string router = OwnIdentity::CommonName();
  if (name.substr(0, name.find('.')) == router) return name;
  return router + "." + name;
}

std::string StripRouterPrefix(const std::string& name) {
  const std::size_t dot = name.find('.');
  if (dot == std::string::npos || dot + 1 == name.size()) return name;
  if (name.compare(0, dot, OwnIdentity::CommonName()) != 0) return name;
  return name.substr(dot + 1);
}

std::vector<std::string> UnqualifiedForms(const std::string& name) {
  std::vector<std::string> forms{name, StripRouterPrefix(name)};
  // An empty name, and any name where the router's own has a dot, are qualified and not stripped.
  const std::string prefix = QualifyWithRouter("");
  if (name.starts_with(prefix) && EnsureQualified(name.substr(prefix.size())) == name) {
    forms.push_back(name.substr(prefix.size()));
  }
  return forms;
}

std::string FirstComponent(std::string_view text) {
  const std::size_t start = text.find_first_not_of('.');
  if (start == std::string_view::npos) return {};
  return std::string(text.substr(start, text.find('.', start) - start));
}

bool IsThisRouter(std::string_view hop) {
  return hop == ":" || (!hop.empty() && hop == OwnIdentity::CommonName());
}

std::string ToDisplayString(const std::string& text) {
  // Without a shift character UTF-7 is either ASCII, which stays as it is, or not valid.
  if (text.find('+') == std::string::npos) return text;
  return Platform::Utf7ToLocal(text).value_or(text);
}

std::string Shown(std::string_view text) {
  std::string shown(text.substr(0, kShownLength));
  for (char& c : shown) {
    if (Platform::IsControl(c)) c = '?';
  }
  if (text.size() > kShownLength) shown += "...";
  return shown;
}

std::string ShownName(const std::string& name) {
  return Shown(ToDisplayString(name));
}

}  // namespace MessageRouter
