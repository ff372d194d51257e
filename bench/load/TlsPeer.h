#pragma once

#include <ace/SOCK_Stream.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "support/Giop.h"
#include "support/TestCertificates.h"

// The wire protocol without an ORB, since an ORB has one certificate a process: what programs are
// made of that play many peers. Failures are std::runtime_error.
namespace Bench {

// Where the root object of a router is.
struct Target {
  std::string host;
  std::uint16_t port = 0;
  std::string key;

  // Fetched from the router's IOR port.
  static Target Of(const std::string& host, std::uint16_t iorPort);
  // Of the door with that id, which stands beside the root object.
  std::string KeyOf(const std::string& door) const;
};

using Context = std::shared_ptr<SSL_CTX>;
// For both ends of a connection; null: without a certificate.
Context MakeContext(const TestSupport::Issued* issued);

// A certificate store, as a router and the tools have it.
void WriteIdentity(const std::filesystem::path& folder, TestSupport::TestCa& ca,
                   const std::string& name, const std::vector<int>& roles);
TestSupport::Issued ReadIdentity(const std::filesystem::path& folder);

// One connection, from either end.
// Threads: one at a time.
class Connection {
 public:
  Connection(const Context& context, const std::string& host, std::uint16_t port);
  Connection(const Context& context, ACE_SOCK_Stream accepted);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(const std::string& bytes);
  // One whole GIOP message; nothing if the other end has closed.
  std::optional<std::string> Receive();
  TestSupport::GiopReplyMessage Call(const std::string& key, const std::string& operation,
                                     const std::string& arguments = "");
  // Where the other end can reach this host.
  std::string LocalAddress() const;

 private:
  bool Read(std::string& bytes, std::size_t size);

  struct Free {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  ACE_SOCK_Stream stream_;
  std::unique_ptr<SSL, Free> ssl_;
};

}  // namespace Bench
