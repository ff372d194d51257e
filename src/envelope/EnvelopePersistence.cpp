#include <cerrno>
#include <charconv>
#include <new>
#include <stdexcept>

#include "broker/Encoding.h"
#include "config/Configuration.h"
#include "envelope/Address.h"
#include "envelope/Envelope.h"
#include "envelope/EnvelopeStore.h"
#include "envelope/EnvelopeText.h"
#include "envelope/Trail.h"
#include "logging/Log.h"
#include "platform/Files.h"

namespace MessageRouter {
namespace {

constexpr std::string_view kPersistentIndex = "PersistentIndex";
constexpr std::string_view kFromParent = "FromParent";
constexpr std::string_view kOriginator = "Originator";
constexpr std::string_view kOriginatorCertificate = "OriginatorCertificate";
constexpr std::string_view kPhysicalDestination = "PhysicalDestination";
constexpr std::string_view kMessageId = "MessageId";
constexpr std::string_view kDestination = "Destination";
constexpr std::string_view kPriority = "Priority";
constexpr std::string_view kTtl = "TTL";
constexpr std::string_view kType = "Type";
constexpr std::string_view kData = "Data";
constexpr std::string_view kTimestamps = "Timestamps";
constexpr std::string_view kOptions = "Options";

// More than the largest message that the broker takes, doubled by the hexadecimal digits.
constexpr std::size_t kFileLimit = 256u << 20;
// The names and numbers of the thirteen lines; texts come on top.
constexpr std::size_t kFrameSize = 512;
// Other writers in the same folder can take a name between its choice and its use.
constexpr int kTries = 100;

void AppendNumber(std::string& text, std::string_view key, std::int64_t number) {
  char digits[24];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, number);
  EnvelopeText::AppendField(text, key, {digits, static_cast<std::size_t>(end.ptr - digits)});
}

// Whether the file was made and could not be filled, in contrast to one that could not be made.
bool IsWriteFailure(int error) {
  return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EIO;
}

// A trail that fails keeps no message alive, and neither does its line.
void LeaveTrailIfAsked(Envelope& envelope, const std::string& fileName) noexcept {
  try {
    if (!GetConfigBool("MessageTrail", false)) return;
    if (envelope.Type().find("EM-NoOp") != std::string::npos) return;
    try {
      LeaveTrail(envelope);
    } catch (const std::exception& exception) {
      LogError("Failed to leave trail for file %s (Error: %s)\n", fileName.c_str(),
               exception.what());
    } catch (...) {
      LogError("Failed to leave trail for file %s\n", fileName.c_str());
    }
  } catch (...) {
  }
}

Timestamps ParseTimestamps(std::string_view text) {
  Timestamps timestamps;
  if (!timestamps.Parse(text)) throw std::runtime_error("the count of timestamps is unreadable");
  return timestamps;
}

}  // namespace

std::string Envelope::Compose() const {
  const HeavyFields none;
  const HeavyFields& heavy = heavy_ ? *heavy_.get() : none;
  const std::string certificate = Encoding::EncodeString(heavy.certificate);
  std::string stamps;
  timestamps_.AppendTo(stamps);
  std::string text;
  text.reserve(kFrameSize + originator_.size() + certificate.size() + physicalDestination_.size() +
               destination_.size() + type_.size() + heavy.data.size() + stamps.size() +
               options_.size());
  AppendNumber(text, kPersistentIndex, persistentIndex_);
  EnvelopeText::AppendField(text, kFromParent, fromParent_ ? "1" : "0");
  EnvelopeText::AppendField(text, kOriginator, originator_);
  EnvelopeText::AppendField(text, kOriginatorCertificate, certificate);
  EnvelopeText::AppendField(text, kPhysicalDestination, physicalDestination_);
  AppendNumber(text, kMessageId, messageId_);
  EnvelopeText::AppendField(text, kDestination, destination_);
  AppendNumber(text, kPriority, priority_);
  AppendNumber(text, kTtl, ttl_);
  EnvelopeText::AppendField(text, kType, type_);
  EnvelopeText::AppendField(text, kData, heavy.data);
  EnvelopeText::AppendField(text, kTimestamps, stamps);
  EnvelopeText::AppendField(text, kOptions, options_);
  return text;
}

bool Envelope::WritePersistent() {
  EnvelopeStore& store = EnvelopeStore::Instance();
  std::string name;
  int error = EEXIST;
  for (int i = 0; error == EEXIST && i < kTries; ++i) {
    name = store.NewEnvelopeFile(persistentIndex_);
    if (name.empty()) break;
    error = store.Write(name, Compose());
  }
  if (error == 0) {
    file_ = name;
    inStoreFolder_ = true;
    if (LogEnabled(kLogDebug)) {
      LogDebug("Created \"%s\" for [%s]\n", FileName().c_str(), Describe().c_str());
    }
    Shrink();
    return true;
  }
  if (!name.empty() && !IsWriteFailure(error)) {
    LogError("Failed to create envelope file %s\n", (store.Directory() + name).c_str());
  }
  LogWarning("WritePersistent( Envelope, id=%08X), bad stream\n", messageId_);
  return false;
}

bool Envelope::FromPersistent() {
  const std::string fileName = FileName();
  int error = 0;
  const std::optional<std::string> text = Platform::ReadFile(fileName, kFileLimit, &error);
  // A shortage passes, and its envelope is whole: all else is told as the broken envelope that its
  // holder may drop.
  if (!text && Platform::IsShortage(error)) {
    throw PassingShortage("The envelope file " + fileName + " cannot be read at present");
  }
  if (!text && error != EFBIG) {
    throw std::runtime_error("Envelope::FromPersistent could not access persisted envelope file " +
                             fileName);
  }
  std::string_view key;
  try {
    if (!text) throw std::runtime_error("the file is too long");
    ReadFields(*text, key);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& exception) {
    LogWarning("Failed to read envelope data from \"%s\" for value: \"%s.\" Error: %s \n",
               fileName.c_str(), std::string(key).c_str(), exception.what());
    return false;
  } catch (...) {
    LogWarning("Failed to read envelope data from \"%s\" for value: \"%s.\"\n", fileName.c_str(),
               std::string(key).c_str());
    return false;
  }
  if (LogEnabled(kLogDebug)) {
    LogDebug("Loaded \"%s\" for [%s]\n", fileName.c_str(), Describe().c_str());
  }
  return true;
}

void Envelope::ReadFields(std::string_view text, std::string_view& key) {
  EnvelopeText::FieldReader reader(text);
  EnvelopeText::Field field;
  while (reader.Next(field)) {
    key = field.key;
    SetField(field.key, field.firstLine, field.value);
  }
}

void Envelope::SetField(std::string_view key, std::string_view firstLine, std::string_view value) {
  if (key == kPersistentIndex) {
    persistentIndex_ = EnvelopeText::ParseUnsigned(value);
  } else if (key == kFromParent) {
    fromParent_ = EnvelopeText::ParseFlag(value);
  } else if (key == kOriginator) {
    originator_ = value;
  } else if (key == kOriginatorCertificate) {
    // What stands behind the encoded text doesn't count, so further lines can't change it.
    heavy_.Use().certificate = Encoding::DecodeString(firstLine);
  } else if (key == kPhysicalDestination) {
    physicalDestination_ = TidyAddress(value);
  } else if (key == kMessageId) {
    messageId_ = EnvelopeText::ParseUnsigned(value);
  } else if (key == kDestination) {
    destination_ = value;
  } else if (key == kPriority) {
    priority_ = EnvelopeText::ParseUnsigned(value);
  } else if (key == kTtl) {
    ttl_ = EnvelopeText::ParseUnsigned(value);
  } else if (key == kType) {
    type_ = value;
  } else if (key == kData) {
    heavy_.Use().data = value;
  } else if (key == kTimestamps) {
    // The count stands in the first line, or the field is broken.
    if (firstLine.size() != value.size()) ParseTimestamps(firstLine);
    timestamps_ = ParseTimestamps(value);
  } else if (key == kOptions) {
    options_ = value;
  }
}

void Envelope::MarkInvalid() {
  const std::string fileName = FileName();
  const std::string badName = fileName + ".bad";
  if (Platform::IsReadable(badName)) Platform::RemoveFile(badName);
  if (Platform::RenameFile(fileName, badName) != 0) {
    LogWarning("Failed to rename invalid envelope file '%s' to '%s'\n", fileName.c_str(),
               badName.c_str());
  } else {
    LogInfo("Renamed invalid envelope file '%s' to' %s'\n", fileName.c_str(), badName.c_str());
  }
}

void Envelope::Retire() noexcept {
  if (file_.empty()) return;
  try {
    const std::string fileName = FileName();
    LeaveTrailIfAsked(*this, fileName);
    if (Platform::RemoveFile(fileName) != 0) {
      LogError("Failed to delete envelope file %s\n", fileName.c_str());
    }
  } catch (...) {
    // There is no memory for the name. What the envelope was for has been done, and stays done.
  }
  file_.clear();
}

}  // namespace MessageRouter
