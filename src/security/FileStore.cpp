#include "security/FileStore.h"

#include <openssl/pem.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "logging/Log.h"
#include "platform/Files.h"
#include "security/OpenSsl.h"
#include "security/Password.h"
#include "security/Roles.h"

namespace CeldaneStoreClient {
namespace {

constexpr char kCommitFile[] = "commit";
constexpr std::size_t kMaximumFileSize = 1024 * 1024;
constexpr unsigned kFolderMode = 0700;
constexpr unsigned kKeyMode = 0600;
constexpr unsigned kCertificateMode = 0644;
constexpr unsigned kReadableByOthers = 0044;

void Require(int error, const std::string& what, const std::string& path) {
  if (error != 0) {
    throw std::runtime_error(what + " " + path + ": " + std::generic_category().message(error));
  }
}

// The name of a file that is not in force yet.
std::string Pending(const std::string& name) {
  return name + ".new";
}

// Nothing if there is no such file.
std::optional<std::string> ReadIfThere(const std::string& path) {
  int error = 0;
  std::optional<std::string> text = Platform::ReadFile(path, kMaximumFileSize, &error);
  if (!text && error != ENOENT) Require(error != 0 ? error : EIO, "Cannot read", path);
  return text;
}

std::string KeyAsText(const Celdane::RSAKey& key, const std::string& password) {
  const OpenSsl::ErrorScope errors;
  const OpenSsl::BioPtr stream = OpenSsl::MemoryStream();
  const EVP_CIPHER* const cipher = password.empty() ? nullptr : EVP_aes_256_cbc();
  if (!stream ||
      PEM_write_bio_PKCS8PrivateKey(stream.get(), key.GetKey(), cipher,
                                    password.empty() ? nullptr : password.data(),
                                    static_cast<int>(password.size()), nullptr, nullptr) != 1) {
    OpenSsl::Fail("Cannot write the private key");
  }
  return OpenSsl::TextOf(stream.get());
}

std::string ParentOf(const std::string& folder) {
  const std::size_t slash = folder.find_last_of('/');
  return slash == std::string::npos ? std::string() : folder.substr(0, slash + 1);
}

}  // namespace

FileStore::FileStore(const std::string& folder, std::function<std::string()> password)
    : folder_(Platform::SlashPath(folder)), password_(std::move(password)) {
  while (folder_.size() > 1 && folder_.back() == '/') folder_.pop_back();
  folder_ += '/';
}

void FileStore::Open() {
  const std::string folder = folder_.substr(0, folder_.size() - 1);
  if (!folder.empty() && !Platform::ListFolder(folder_)) {
    const std::string parent = ParentOf(folder);
    if (!parent.empty()) Require(Platform::MakeFolders(parent), "Cannot make the folder", parent);
    const int error = Platform::MakeFolder(folder, kFolderMode);
    if (error != EEXIST) Require(error, "Cannot make the folder", folder);
  }
  if (!Platform::ListFolder(folder_)) Require(EACCES, "Cannot read the folder", folder_);
  if (Platform::FileExists(Path(kCommitFile))) {
    FinishCommit();
  } else {
    DropPending();
  }
  WarnOfOpenKey();
}

void FileStore::StorePrivateKey(const Celdane::RSAKey& key) {
  if (Platform::FileExists(Path(kCommitFile))) FinishCommit();
  Write(Pending(kKeyFile), KeyAsText(key, password_()), kKeyMode);
  pendingKey_ = key;
}

void FileStore::StoreCertificate(const Celdane::Certificate& certificate) {
  if (Platform::FileExists(Path(kCommitFile))) FinishCommit();
  const std::string text = MessageRouter::CertificateAsText(certificate.GetX509().get());
  if (text.empty()) throw std::runtime_error("Cannot write the certificate");
  Write(Pending(kCertificateFile), text, kCertificateMode);
  pendingCertificate_ = certificate;
}

void FileStore::Commit() {
  if (pendingKey_ && pendingCertificate_) {
    const OpenSsl::ErrorScope errors;
    if (X509_check_private_key(pendingCertificate_->GetX509().get(), pendingKey_->GetKey()) != 1) {
      DropPending();
      throw std::runtime_error("The certificate does not belong to the private key");
    }
  }
  if (!pendingKey_ && !pendingCertificate_) return;
  Write(kCommitFile, "", kKeyMode);
  FinishCommit();
}

std::unique_ptr<Celdane::RSAKey> FileStore::GetPrivateKey() {
  const OpenSsl::ErrorScope errors;
  const std::optional<std::string> text = ReadIfThere(Path(kKeyFile));
  if (!text) return nullptr;
  const OpenSsl::BioPtr stream = OpenSsl::ReadFrom(*text);
  EVP_PKEY* const key = stream ? PEM_read_bio_PrivateKey(stream.get(), nullptr,
                                                         &MessageRouter::PasswordCallback, nullptr)
                               : nullptr;
  if (key == nullptr) OpenSsl::Fail("Cannot read the private key in " + Path(kKeyFile));
  return std::make_unique<Celdane::RSAKey>(key);
}

std::unique_ptr<Celdane::Certificate> FileStore::GetCACertificate() {
  return ReadCertificate(kCaFile);
}

std::unique_ptr<Celdane::Certificate> FileStore::GetCertificate() {
  return ReadCertificate(kCertificateFile);
}

void FileStore::ReplaceCACertificate(const Celdane::Certificate& certificate) {
  const std::string text = MessageRouter::CertificateAsText(certificate.GetX509().get());
  if (text.empty()) throw std::runtime_error("Cannot write the CA certificate");
  Write(kCaFile, text, kCertificateMode);
}

void FileStore::Write(const std::string& name, const std::string& text, unsigned mode) {
  BeforeChange();
  Require(Platform::ReplaceFile(Path(name), text, mode), "Cannot write", Path(name));
}

void FileStore::Remove(const std::string& name) {
  if (!Platform::FileExists(Path(name))) return;
  BeforeChange();
  Require(Platform::RemoveFile(Path(name)), "Cannot remove", Path(name));
}

void FileStore::PutInForce(const std::string& name) {
  const std::string pending = Path(Pending(name));
  if (!Platform::FileExists(pending)) return;
  BeforeChange();
  Require(Platform::RenameFile(pending, Path(name)), "Cannot put into place", Path(name));
}

void FileStore::FinishCommit() {
  PutInForce(kKeyFile);
  PutInForce(kCertificateFile);
  // Writing syncs the folder too: both names are in force on stable storage before the mark goes.
  Write(kCommitFile, "", kKeyMode);
  Remove(kCommitFile);
  pendingKey_.reset();
  pendingCertificate_.reset();
}

void FileStore::DropPending() {
  Remove(Pending(kKeyFile));
  Remove(Pending(kCertificateFile));
  pendingKey_.reset();
  pendingCertificate_.reset();
}

void FileStore::WarnOfOpenKey() const {
  const std::optional<unsigned> mode = Platform::ModeOf(Path(kKeyFile));
  if (mode && (*mode & kReadableByOthers) != 0) {
    MessageRouter::LogWarning("The private key %s can be read by others\n", Path(kKeyFile).c_str());
  }
}

std::unique_ptr<Celdane::Certificate> FileStore::ReadCertificate(const std::string& name) const {
  const OpenSsl::ErrorScope errors;
  const std::optional<std::string> text = ReadIfThere(Path(name));
  if (!text) return nullptr;
  const OpenSsl::BioPtr stream = OpenSsl::ReadFrom(*text);
  X509* const certificate =
      stream ? PEM_read_bio_X509(stream.get(), nullptr, &MessageRouter::PasswordCallback, nullptr)
             : nullptr;
  if (certificate == nullptr) OpenSsl::Fail("Cannot read the certificate in " + Path(name));
  return std::make_unique<Celdane::Certificate>(certificate);
}

}  // namespace CeldaneStoreClient
