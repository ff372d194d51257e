#pragma once

#include <string>
#include <string_view>
#include <vector>

// Dotted addresses: chains of names separated by ".".
namespace MessageRouter {

// In order, empty components dropped: "a..b." gives two.
std::vector<std::string> SplitAddress(std::string_view text);
std::string JoinAddress(const std::vector<std::string>& components);
// What joining what was split gives, without the memory that a component takes.
std::string TidyAddress(std::string_view text);

std::string QualifyWithRouter(const std::string& name);  // "<router>.<name>"
// Unchanged if the first component is the router's own name.
std::string EnsureQualified(const std::string& name);
std::string StripRouterPrefix(const std::string& name);
// What a name may have been that EnsureQualified has made this one of; itself in the first place.
std::vector<std::string> UnqualifiedForms(const std::string& name);
// The first component that is not empty, or nothing.
std::string FirstComponent(std::string_view text);

// Whether a hop means this router: by its name, or as ":", whichever router holds the envelope.
bool IsThisRouter(std::string_view hop);

// For log texts: UTF-7 to the local code page; unchanged where that fails.
std::string ToDisplayString(const std::string& text);
// For log texts: what a peer sent makes no lines of its own in the log, and doesn't fill it. Each
// control character becomes "?", and all after 1024 bytes "...".
std::string Shown(std::string_view text);
// Both of these, in that order: what is decoded may be a control character.
std::string ShownName(const std::string& name);

}  // namespace MessageRouter
