#include "envelope/EnvelopeStore.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "config/Configuration.h"
#include "config/DataLocation.h"
#include "envelope/Address.h"
#include "logging/Log.h"

namespace MessageRouter {
namespace {

constexpr std::string_view kExtension = ".msg";
// Messages are nobody's business but the router's.
constexpr unsigned kFolderMode = 0700;

std::atomic<EnvelopeStore*> made{nullptr};
std::atomic<EnvelopeStore*> replacement{nullptr};

std::string WithSlash(std::string directory) {
  if (directory.empty() || directory.back() != '/') directory += '/';
  return directory;
}

EnvelopeStore* Make() {
  auto* store = new EnvelopeStore(EnvelopeDirectory(RouterName()));
  made = store;
  return store;
}

std::string NameFor(std::uint32_t index) {
  char name[16];
  std::snprintf(name, sizeof name, "%08x.msg", static_cast<unsigned>(index));
  return name;
}

// Whether the router could answer this message, if it is the router's own. One whose payload it
// can't decode has ended the process, and would do so at every start.
bool CanBeDispatched(Envelope& envelope) {
  if (envelope.HopCount() != 1 || !IsThisRouter(envelope.NextHop())) return true;
  try {
    CORBA::Any payload;
    envelope.GetData(payload);
    return true;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& exception) {
    LogWarning("Failed to read envelope data from \"%s\" for value: \"Data.\" Error: %s \n",
               envelope.FileName().c_str(), exception.what());
    return false;
  }
}

// False if the envelope is not to be routed.
bool Load(Envelope& envelope) {
  try {
    if (envelope.FromPersistent() && CanBeDispatched(envelope)) return true;
  } catch (const std::exception& exception) {
    // A file that can't even be opened stays where it is, and the others are loaded all the same.
    LogError("%s\n", exception.what());
    return false;
  }
  envelope.MarkInvalid();
  return false;
}

}  // namespace

EnvelopeStore& EnvelopeStore::Instance() {
  if (EnvelopeStore* store = replacement) return *store;
  static EnvelopeStore* const instance = Make();
  return *instance;
}

const EnvelopeStore* EnvelopeStore::Existing() {
  const EnvelopeStore* store = replacement;
  return store != nullptr ? store : made.load();
}

void EnvelopeStore::Replace(EnvelopeStore* store) {
  replacement = store;
}

EnvelopeStore::EnvelopeStore(std::string directory) : folder_(WithSlash(std::move(directory))) {
  const int error = Platform::MakeFolder(folder_.Path(), kFolderMode);
  if (error != 0 && error != EEXIST) LogError("Failed to create envelope directory\n");
}

std::string EnvelopeStore::NewEnvelopeFile(std::uint32_t& index) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return {};
  std::string name = NameFor(nextIndex_);
  while (namesInUse_ && Platform::FileExists(folder_.Path() + name)) name = NameFor(++nextIndex_);
  namesInUse_ = false;
  index = nextIndex_++;
  return name;
}

int EnvelopeStore::Write(const std::string& name, const std::string& content) {
  const int error = folder_.Publish(name, content, GetConfigBool("SyncEnvelopes", true));
  if (error == EEXIST) {
    ThreadHelper::Guard guard(mutex_);
    if (guard) namesInUse_ = true;
  }
  return error;
}

void EnvelopeStore::NoteIndex(std::uint32_t index) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  if (nextIndex_ <= index) nextIndex_ = index + 1;
}

void EnvelopeStore::LoadAll(std::vector<Envelope>& envelopes) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  auto names = Platform::ListFolder(folder_.Path());
  if (!names) {
    LogError("Failed to list envelope directory %s\n", folder_.Path().c_str());
    return;
  }
  std::erase_if(*names, [](const std::string& name) { return !name.ends_with(kExtension); });
  // In the order in which they were made, so that none overtakes another at a restart.
  std::sort(names->begin(), names->end());
  envelopes.reserve(envelopes.size() + names->size());
  for (const std::string& name : *names) envelopes.emplace_back(folder_.Path() + name);
}

void LoadPersistentEnvelopes(std::vector<Envelope>& envelopes) {
  EnvelopeStore& store = EnvelopeStore::Instance();
  store.LoadAll(envelopes);
  auto end = envelopes.begin();
  for (Envelope& envelope : envelopes) {
    if (!Load(envelope)) continue;
    envelope.Shrink();
    store.NoteIndex(envelope.PersistentIndex());
    if (&*end != &envelope) *end = std::move(envelope);
    ++end;
  }
  envelopes.erase(end, envelopes.end());
}

}  // namespace MessageRouter
