// brelix-certmgr: makes a certification authority and issues certificates.

#include <cstdio>
#include <exception>

#include "certmgr/CertificateAuthority.h"
#include "certmgr/CommandLine.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "security/FileStore.h"

namespace {

using Certmgr::CertificateAuthority;

void Issue(const Certmgr::Options& options) {
  const CertificateAuthority authority = CertificateAuthority::Open(options.authority);
  const Certmgr::Issued issued =
      authority.Issue(options.name, options.roles, options.validity, options.bits);
  // Without a pass phrase: the folder may go to another machine, whose router has its own.
  CeldaneStoreClient::FileStore store(options.out, [] { return std::string(); });
  store.Open();
  store.ReplaceCACertificate(authority.Own());
  store.StorePrivateKey(issued.key);
  store.StoreCertificate(issued.certificate);
  store.Commit();
}

}  // namespace

int main(int argc, char** argv) {
  // What the libraries below have to say is for a router's log.
  MessageRouter::SetLogMask(0);
  try {
    int status = 0;
    const auto options =
        Certmgr::ParseCommandLine(argc, argv, Platform::Clock::Instance().WallSeconds(), status);
    if (!options) return status;
    if (options->validity.notAfter <= Platform::Clock::Instance().WallSeconds()) {
      std::fprintf(stderr, "brelix-certmgr: this certificate has expired already\n");
    }
    if (options->command == Certmgr::Command::Issue) {
      Issue(*options);
    } else {
      CertificateAuthority::Create(options->authority, options->name, options->validity,
                                   options->bits);
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "brelix-certmgr: %s\n", error.what());
    return 1;
  }
}
