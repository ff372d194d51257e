#include "TlsPeer.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <openssl/pem.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "client_library/IorPort.h"

namespace Bench {

namespace {

constexpr std::size_t kHeaderBytes = 12;

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

ACE_SOCK_Stream Connect(const std::string& host, std::uint16_t port) {
  ACE_SOCK_Stream stream;
  const ACE_Time_Value limit(30);
  if (ACE_SOCK_Connector().connect(stream, ACE_INET_Addr(port, host.c_str()), &limit) != 0) {
    throw std::runtime_error("cannot connect");
  }
  return stream;
}

}  // namespace

Target Target::Of(const std::string& host, std::uint16_t iorPort) {
  const std::string ior = ClientLibrary::FetchIor(host, iorPort, std::chrono::seconds(10));
  return {host, TestSupport::TlsPortOf(ior), TestSupport::ObjectKeyOf(ior)};
}

std::string Target::KeyOf(const std::string& door) const {
  const std::string root = "MessageRouter";
  std::string other = key;
  return other.replace(other.rfind(root), root.size(), door);
}

Context MakeContext(const TestSupport::Issued* issued) {
  Context context(SSL_CTX_new(TLS_method()), SSL_CTX_free);
  SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_AUTO_RETRY);
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

TestSupport::Issued ReadIdentity(const std::filesystem::path& folder) {
  return {ReadFile(folder / "certificate.pem"), ReadFile(folder / "key.pem")};
}

Connection::Connection(const Context& context, const std::string& host, std::uint16_t port)
    : stream_(Connect(host, port)), ssl_(SSL_new(context.get())) {
  SSL_set_fd(ssl_.get(), stream_.get_handle());
  if (SSL_connect(ssl_.get()) == 1) return;
  stream_.close();
  throw std::runtime_error("no TLS");
}

Connection::Connection(const Context& context, ACE_SOCK_Stream accepted)
    : stream_(accepted), ssl_(SSL_new(context.get())) {
  SSL_set_fd(ssl_.get(), stream_.get_handle());
  if (SSL_accept(ssl_.get()) == 1) return;
  stream_.close();
  throw std::runtime_error("no TLS");
}

Connection::~Connection() {
  ssl_.reset();
  stream_.close();
}

void Connection::Send(const std::string& bytes) {
  if (SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0) {
    throw std::runtime_error("cannot send");
  }
}

bool Connection::Read(std::string& bytes, std::size_t size) {
  std::size_t got = bytes.size();
  bytes.resize(got + size);
  while (got < bytes.size()) {
    const int count = SSL_read(ssl_.get(), &bytes[got], static_cast<int>(bytes.size() - got));
    if (count <= 0) return false;
    got += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<std::string> Connection::Receive() {
  std::string message;
  if (!Read(message, kHeaderBytes)) return std::nullopt;
  if (!Read(message, TestSupport::CdrReader(message, 8).ULong())) return std::nullopt;
  return message;
}

TestSupport::GiopReplyMessage Connection::Call(const std::string& key, const std::string& operation,
                                               const std::string& arguments) {
  Send(TestSupport::GiopRequest(key, operation, arguments));
  const std::optional<std::string> message = Receive();
  if (!message) throw std::runtime_error("the router has closed");
  return TestSupport::ParseReply(*message);
}

std::string Connection::LocalAddress() const {
  ACE_INET_Addr address;
  stream_.get_local_addr(address);
  return address.get_host_addr();
}

}  // namespace Bench
