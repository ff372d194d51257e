#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "envelope/Envelope.h"
#include "platform/Files.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// The folder of envelope files and the numbers in their names.
// Threads: any.
class EnvelopeStore {
 public:
  // Made on first use, on the folder that the configuration names, and never destroyed.
  static EnvelopeStore& Instance();
  // The one that Instance gives, if it has been made.
  static const EnvelopeStore* Existing();
  // Makes the folder if it is missing; a failure is logged, and shows at the first file.
  explicit EnvelopeStore(std::string directory);
  virtual ~EnvelopeStore() = default;
  // The caller keeps ownership; null brings the real one back.
  static void Replace(EnvelopeStore* store);

  // The name (without the folder) and index for a new file. Names in use are skipped at the first
  // call and after a Write that met one; in between Write tells, and the caller asks again. Empty
  // if the lock fails.
  std::string NewEnvelopeFile(std::uint32_t& index);
  // Writes the file whole, synced if SyncEnvelopes (default true) says so. 0, or the system's
  // error; nothing is left behind then. Virtual for tests, whose writes fail.
  virtual int Write(const std::string& name, const std::string& content);
  void NoteIndex(std::uint32_t index);
  // One envelope for each "*.msg", sorted by name; not yet filled.
  void LoadAll(std::vector<Envelope>& envelopes);
  const std::string& Directory() const { return folder_.Path(); }

 private:
  ThreadHelper::Mutex mutex_;
  Platform::PublishFolder folder_;
  std::uint32_t nextIndex_ GUARDED_BY(mutex_) = 0;
  bool namesInUse_ GUARDED_BY(mutex_) = true;  // look before a name is given out
};

// All envelopes on disk, read and shrunk, sorted by name; those that can't be read are set aside.
void LoadPersistentEnvelopes(std::vector<Envelope>& envelopes);

}  // namespace MessageRouter
