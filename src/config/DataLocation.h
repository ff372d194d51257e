#pragma once

#include <string>

// Where the router's files stand. All paths follow from the data root and the router's name. "\"
// separates the levels of a path as "/" does.
namespace MessageRouter {

// Ends in a slash. "./" with UseRelativeDataLocation, or where the system names no common folder.
std::string DataRoot();

// The data root and the router's name; no slash at the end.
std::string RouterDirectory(const std::string& routerName);
std::string LogDirectory(const std::string& routerName);     // ends in a slash
std::string ReportDirectory(const std::string& routerName);  // ends in a slash
std::string ReportFile(const std::string& routerName);
std::string RouterTablePath(const std::string& routerName);
std::string LogicalTablePath(const std::string& routerName);
// The value of EnvelopeDir, or below the router's directory; ends in a slash.
std::string EnvelopeDirectory(const std::string& routerName);

// The name under which this process keeps its files, set once at the start (the value of -name).
const std::string& RouterName();
void SetRouterName(const std::string& name);

}  // namespace MessageRouter
