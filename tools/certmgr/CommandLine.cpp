#include "certmgr/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

#include "certmgr/Timestamp.h"
#include "command_line/ParseFailure.h"
#include "platform/Files.h"

namespace Certmgr {
namespace {

constexpr int kBadUsage = 2;
constexpr std::int64_t kDay = 24 * 60 * 60;
// Hosts whose clocks are a little slow accept a new certificate at once.
constexpr std::int64_t kSlack = 60 * 60;
constexpr int kSmallestKey = 1024;
constexpr int kLargestKey = 16384;
constexpr int kMostDays = 36525;

constexpr const char* kFooter =
    "Exit status:\n"
    "  0  done\n"
    "  1  failed\n"
    "  2  bad usage\n"
    "\n"
    "A folder that issue writes is the identity of a client, and can be given to a router with\n"
    "-private. Times are UTC, as in 2026-11-21T06:23:00Z.";

struct Validities {
  int days = 0;
  std::string notBefore;
  std::string notAfter;
};

void AddCommon(CLI::App& app, Options& options, Validities& validity, int days, int bits) {
  validity.days = days;
  options.bits = bits;
  app.add_option("--bits", options.bits, "size of the RSA key")
      ->capture_default_str()
      ->check(CLI::Range(kSmallestKey, kLargestKey));
  auto* count =
      app.add_option("--days", validity.days, "days of validity, from now or --not-before")
          ->capture_default_str()
          ->check(CLI::Range(1, kMostDays));
  app.add_option("--not-before", validity.notBefore,
                 "beginning of the validity; an hour ago if it is not given");
  app.add_option("--not-after", validity.notAfter, "end of the validity, instead of --days")
      ->excludes(count);
}

std::int64_t TimeOf(const char* option, const std::string& text) {
  const std::optional<std::int64_t> time = ParseTimestamp(text);
  if (!time) throw CLI::ValidationError(option, text + " is no time like 2026-11-21T06:23:00Z");
  return *time;
}

Validity Resolve(const Validities& given, std::int64_t now) {
  Validity result;
  const std::int64_t begin =
      given.notBefore.empty() ? now : TimeOf("--not-before", given.notBefore);
  result.notAfter =
      given.notAfter.empty() ? begin + given.days * kDay : TimeOf("--not-after", given.notAfter);
  // A validity that is over must have begun too.
  result.notBefore =
      given.notBefore.empty() ? std::min(now - kSlack, result.notAfter - kDay) : begin;
  if (result.notBefore >= result.notAfter) {
    throw CLI::ValidationError("--not-after", "the validity ends before it begins");
  }
  return result;
}

std::vector<MessageRouter::Role> RolesOf(std::vector<std::string> names) {
  static const std::map<std::string, MessageRouter::Role> kRoles = {
      {"certification-manager", MessageRouter::Role::CertificationManager},
      {"router", MessageRouter::Role::Router},
      {"management", MessageRouter::Role::Management},
  };
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  const bool none = std::find(names.begin(), names.end(), "none") != names.end();
  if (none && names.size() > 1) {
    throw CLI::ValidationError("--role", "none goes with no other role");
  }
  std::vector<MessageRouter::Role> roles;
  for (const std::string& name : names) {
    if (name != "none") roles.push_back(kRoles.at(name));
  }
  return roles;
}

void CheckName(const std::string& name) {
  const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7F; };
  if (name.empty() || std::any_of(name.begin(), name.end(), isControl)) {
    throw CLI::ValidationError("--name",
                               "a name has at least one character, and no control characters");
  }
}

}  // namespace

std::optional<Options> ParseCommandLine(int argc, char** argv, std::int64_t now, int& status) {
  CLI::App app("Makes a certification authority and issues certificates.", "brelix-certmgr");
  app.set_version_flag("--version", "brelix-certmgr " BRELIX_VERSION);
  app.footer(kFooter);
  app.require_subcommand(1);

  Options forInit;
  Validities initValidity;
  forInit.name = "Brelix Certification Authority";
  CLI::App* const init = app.add_subcommand("init", "make a certification authority");
  init->add_option("--dir", forInit.authority, "folder of the authority: ca.pem and ca.key")
      ->required();
  init->add_option("--name", forInit.name, "common name")->capture_default_str();
  AddCommon(*init, forInit, initValidity, 3650, 3072);

  Options forIssue;
  Validities issueValidity;
  std::vector<std::string> roles;
  CLI::App* const issue = app.add_subcommand("issue", "issue a certificate with a new key");
  issue->add_option("--ca", forIssue.authority, "folder of the authority")->required();
  issue->add_option("--name", forIssue.name, "common name: the name of the router or client")
      ->required();
  issue
      ->add_option(
          "--role", roles,
          "role of the bearer; may be given more than once; none, as for clients, if it is "
          "not given")
      ->take_all()
      ->allow_extra_args(false)
      ->check(CLI::IsMember({"router", "management", "certification-manager", "none"}));
  AddCommon(*issue, forIssue, issueValidity, 365, 2048);
  issue
      ->add_option("--out", forIssue.out,
                   "folder for ca.pem, certificate.pem and key.pem; what is there is replaced")
      ->required();

  try {
    app.parse(argc, argv);
    const bool isIssue = issue->parsed();
    Options options = isIssue ? forIssue : forInit;
    options.command = isIssue ? Command::Issue : Command::Init;
    CheckName(options.name);
    options.authority = Platform::SlashPath(options.authority);
    options.roles = RolesOf(roles);
    options.validity = Resolve(isIssue ? issueValidity : initValidity, now);
    return options;
  } catch (const CLI::ParseError& error) {
    status = CommandLine::Explain(error, app, kBadUsage);
  }
  return std::nullopt;
}

}  // namespace Certmgr
