#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "security/CeldaneStoreClient.h"

namespace CeldaneStoreClient {

inline constexpr char kCaFile[] = "ca.pem";
inline constexpr char kCertificateFile[] = "certificate.pem";
inline constexpr char kKeyFile[] = "key.pem";

// A certificate store in a folder of PEM files. The folder is made with mode 0700 if it is missing;
// keys get mode 0600.
//
// A pair is exchanged in steps, and opening the store finishes what a crash interrupted:
//
//   on disk                               opening
//   *.new without "commit"                drops them: the old pair is in force
//   "commit", any of the *.new            renames them, key first; removes "commit"
//   "commit" alone                        removes it
//
// "commit" is written only when all *.new are on stable storage, and nothing new is stored before
// it is gone. Threads: one at a time.
class FileStore : public IStore {
 public:
  // `password` gives the pass phrase for new keys at the time of storing; empty for none. Keys are
  // read with the process's CertPassword.
  FileStore(const std::string& folder, std::function<std::string()> password);

  // Opens the folder; throws std::runtime_error if that fails. Ahead of everything else.
  void Open();

  void StorePrivateKey(const Celdane::RSAKey& key) override;
  std::unique_ptr<Celdane::RSAKey> GetPrivateKey() override;
  std::unique_ptr<Celdane::Certificate> GetCACertificate() override;
  void StoreCertificate(const Celdane::Certificate& certificate) override;
  std::unique_ptr<Celdane::Certificate> GetCertificate() override;
  // Throws, and drops both, if a key and a certificate have been stored that don't belong together.
  void Commit() override;

  // In force at once.
  void ReplaceCACertificate(const Celdane::Certificate& certificate);

 protected:
  // Called ahead of each change on disk; a test loses the process's life here.
  virtual void BeforeChange() {}

 private:
  std::string Path(const std::string& name) const { return folder_ + name; }
  void Write(const std::string& name, const std::string& text, unsigned mode);
  void Remove(const std::string& name);
  void PutInForce(const std::string& name);
  void FinishCommit();
  void DropPending();
  void WarnOfOpenKey() const;
  std::unique_ptr<Celdane::Certificate> ReadCertificate(const std::string& name) const;

  std::string folder_;  // ends in a slash
  std::function<std::string()> password_;
  std::optional<Celdane::RSAKey> pendingKey_;
  std::optional<Celdane::Certificate> pendingCertificate_;
};

}  // namespace CeldaneStoreClient
