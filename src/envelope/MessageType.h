#pragma once

#include <optional>
#include <string>
#include <string_view>

// The grammar of message types: "<prefix>-<name>" or "<prefix>-<name>-<suffix>", and the family
// "Certification.<operation>". All comparisons ignore case.
namespace MessageRouter {

std::string FormatMessageType(const std::string& prefix, const std::string& name,
                              const std::string& suffix = "");
std::string ManagementMessageType(const std::string& name);  // "EM-<name>"
std::string ManagementReplyType(const std::string& name);    // "EM-<name>-Reply"
std::string SystemMessageType(const std::string& name, const std::string& suffix = "");

// Prefix and name must begin what they stand for; no suffix allowed unless one is given, "*" is
// any.
bool MatchMessageType(std::string_view type, std::string_view prefix, std::string_view name,
                      std::string_view suffix = {});

bool IsManagementType(std::string_view type);
bool IsSystemType(std::string_view type);
bool IsCertificationType(std::string_view type);
bool IsCertificationRequest(std::string_view type);

}  // namespace MessageRouter
