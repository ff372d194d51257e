// A crowd of TLS connections to one router, from one process: clients of as many certificates that
// have logged on and stay silent, and strangers that finish TLS and send half a message. It speaks
// the wire protocol itself, since an ORB has one certificate a process.
//
// Makes its own certification authority and writes the identities "router" and "active" to the
// folder; then takes commands on standard input and answers each with a line:
//   router PORT    the IOR port of the router on this host
//   idle N         N more clients, registered and logged on
//   strangers N    N more half messages
#include <ace/CDR_Stream.h>
#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/SString.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "client_library/IorPort.h"
#include "platform/Process.h"
#include "support/TestCertificates.h"

namespace {

struct Target {
  std::string host;
  std::uint16_t port = 0;
  std::string key;  // of the root object
};

std::string FromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// The first IIOP profile: host, object key, and the TLS port among its components.
Target ParseIor(const std::string& ior) {
  constexpr ACE_CDR::ULong kTlsTransport = 20;
  const std::string bytes = FromHex(ior.substr(4));
  std::vector<std::uint64_t> aligned(bytes.size() / 8 + 2);
  char* const buffer = reinterpret_cast<char*>(aligned.data());
  bytes.copy(buffer, bytes.size());
  ACE_InputCDR cdr(buffer + 1, bytes.size() - 1, buffer[0], 1, 2);
  ACE_CDR::ULong profiles = 0;
  ACE_CDR::ULong tag = 0;
  ACE_CDR::ULong length = 0;
  if (!cdr.skip_string() || !cdr.read_ulong(profiles) || !cdr.read_ulong(tag) || tag != 0 ||
      !cdr.read_ulong(length)) {
    throw std::runtime_error("no IIOP profile");
  }
  ACE_InputCDR profile(cdr, length);
  ACE_CDR::Octet octet = 0;
  ACE_CString host;
  Target target;
  ACE_CDR::ULong size = 0;
  if (!profile.read_octet(octet) || !profile.read_octet(octet) || !profile.read_string(host) ||
      !profile.read_ushort(target.port) || !profile.read_ulong(size) || size > 1024) {
    throw std::runtime_error("a broken profile");
  }
  target.host = host.c_str();
  target.key.resize(size);
  ACE_CDR::ULong components = 0;
  if (!profile.read_char_array(target.key.data(), size) || !profile.read_ulong(components)) {
    throw std::runtime_error("a broken profile");
  }
  for (; components > 0; --components) {
    if (!profile.read_ulong(tag) || !profile.read_ulong(length)) break;
    ACE_InputCDR component(profile, length);
    profile.skip_bytes(length);
    ACE_CDR::UShort word = 0;
    if (tag == kTlsTransport && component.read_ushort(word) && component.read_ushort(word)) {
      component.read_ushort(target.port);
    }
  }
  return target;
}

// A GIOP 1.2 request, little-endian, with `body` as its arguments.
std::string Request(const std::string& key, const std::string& operation, const std::string& body) {
  std::string text;
  const auto align = [&text](std::size_t to) {
    while ((text.size() + 12) % to != 0) text += '\0';
  };
  const auto number = [&](std::uint32_t value) {
    align(4);
    for (int i = 0; i < 4; ++i) text += static_cast<char>(value >> (8 * i));
  };
  number(1);                           // request id
  text += std::string("\3\0\0\0", 4);  // a response is expected
  text += std::string(4, '\0');        // addressing by key
  number(static_cast<std::uint32_t>(key.size()));
  text += key;
  number(static_cast<std::uint32_t>(operation.size() + 1));
  text += operation + '\0';
  number(0);  // service contexts
  if (!body.empty()) {
    align(8);
    text += body;
  }
  std::string header("GIOP\1\2\1\0", 8);
  for (int i = 0; i < 4; ++i) header += static_cast<char>(text.size() >> (8 * i));
  return header + text;
}

class Connection {
 public:
  Connection(SSL_CTX* context, const Target& target) {
    ACE_SOCK_Connector connector;
    const ACE_Time_Value limit(30);
    if (connector.connect(stream_, ACE_INET_Addr(target.port, target.host.c_str()), &limit) != 0) {
      throw std::runtime_error("cannot connect");
    }
    ssl_.reset(SSL_new(context));
    SSL_set_fd(ssl_.get(), stream_.get_handle());
    if (SSL_connect(ssl_.get()) != 1) throw std::runtime_error("no TLS");
  }
  ~Connection() {
    ssl_.reset();
    stream_.close();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(const std::string& bytes) {
    if (SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0) {
      throw std::runtime_error("cannot send");
    }
  }
  // Returns the status of the reply.
  std::uint32_t Call(const std::string& key, const std::string& operation,
                     const std::string& body = "") {
    Send(Request(key, operation, body));
    const std::string header = Read(12);
    std::uint32_t size = 0;
    for (int i = 3; i >= 0; --i) size = size << 8 | static_cast<unsigned char>(header[8 + i]);
    const std::string reply = Read(size);
    return static_cast<unsigned char>(reply.at(4));
  }

 private:
  std::string Read(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t got = 0; got < size;) {
      const int count = SSL_read(ssl_.get(), bytes.data() + got, static_cast<int>(size - got));
      if (count <= 0) throw std::runtime_error("the router has closed");
      got += static_cast<std::size_t>(count);
    }
    return bytes;
  }

  struct Free {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  ACE_SOCK_Stream stream_;
  std::unique_ptr<SSL, Free> ssl_;
};

using Context = std::shared_ptr<SSL_CTX>;

Context MakeContext(const TestSupport::Issued* issued) {
  Context context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
  if (issued == nullptr) return context;
  const auto read = [](const std::string& pem) {
    return std::shared_ptr<BIO>(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                BIO_free);
  };
  const std::shared_ptr<X509> certificate(
      PEM_read_bio_X509(read(issued->certificatePem).get(), nullptr, nullptr, nullptr), X509_free);
  const std::shared_ptr<EVP_PKEY> key(
      PEM_read_bio_PrivateKey(read(issued->keyPem).get(), nullptr, nullptr, nullptr),
      EVP_PKEY_free);
  if (SSL_CTX_use_certificate(context.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
    throw std::runtime_error("cannot use a certificate");
  }
  return context;
}

void WriteIdentity(const std::filesystem::path& folder, TestSupport::TestCa& ca,
                   const std::string& name, const std::vector<int>& roles) {
  const TestSupport::Issued issued = ca.Issue(name, roles);
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "ca.pem") << ca.CaPem();
  std::ofstream(folder / "certificate.pem") << issued.certificatePem;
  std::ofstream(folder / "key.pem") << issued.keyPem;
  std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
  std::filesystem::permissions(folder / "key.pem", std::filesystem::perms::owner_read);
}

class Crowd {
 public:
  explicit Crowd(const std::filesystem::path& folder) {
    WriteIdentity(folder / "router", ca_, "router", {1});
    WriteIdentity(folder / "active", ca_, "active", {});
  }

  void Aim(std::uint16_t port) {
    target_ = ParseIor(ClientLibrary::FetchIor("localhost", port, std::chrono::seconds(10)));
    // The door for clients stands beside the root object, under an id of its own.
    const std::string root = "MessageRouter";
    clientKey_ = target_.key;
    clientKey_.replace(clientKey_.rfind(root), root.size(), "Client");
  }
  void AddIdle(unsigned count) {
    const std::string nilReference("\1\0\0\0\0\0\0\0\0\0\0\0", 12);
    for (unsigned i = 0; i < count; ++i) {
      const TestSupport::Issued issued = ca_.Issue("idle-" + std::to_string(++clients_), {});
      auto connection = std::make_unique<Connection>(MakeContext(&issued).get(), target_);
      if (connection->Call(clientKey_, "Register") != 0 ||
          connection->Call(clientKey_, "LogonPushPull", nilReference) != 0) {
        throw std::runtime_error("cannot log on");
      }
      connections_.push_back(std::move(connection));
    }
  }
  // Returns how many the router let in.
  unsigned AddStrangers(unsigned count) {
    const Context context = MakeContext(nullptr);
    unsigned admitted = 0;
    for (unsigned i = 0; i < count; ++i) {
      try {
        auto connection = std::make_unique<Connection>(context.get(), target_);
        connection->Send("GIOP\1\2");
        connections_.push_back(std::move(connection));
        ++admitted;
      } catch (const std::runtime_error&) {
      }
    }
    return admitted;
  }

 private:
  TestSupport::TestCa ca_;
  Target target_;
  std::string clientKey_;
  unsigned clients_ = 0;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_crowd FOLDER\n");
    return 2;
  }
  try {
    Platform::RaiseDescriptorLimit();
    Crowd crowd(argv[1]);
    std::printf("made\n");
    std::fflush(stdout);
    std::string command;
    unsigned number = 0;
    while (std::cin >> command >> number) {
      if (command == "router") crowd.Aim(static_cast<std::uint16_t>(number));
      if (command == "idle") crowd.AddIdle(number);
      if (command == "strangers") number = crowd.AddStrangers(number);
      std::printf("%s %u\n", command.c_str(), number);
      std::fflush(stdout);
    }
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_crowd: %s\n", exception.what());
    return 1;
  }
}
