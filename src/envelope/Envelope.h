#pragma once

#include <BrelixMessaging.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "envelope/CopiedPointer.h"
#include "envelope/TimeToLive.h"
#include "envelope/Timestamps.h"

namespace MessageRouter {

// An envelope's file can't be read at present, for want of descriptors or memory. Too little memory
// may be told as std::bad_alloc too.
class PassingShortage : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// An envelope takes more on the wire than whoever is next may take.
class EnvelopeTooLarge : public std::runtime_error {
 public:
  explicit EnvelopeTooLarge(std::size_t size);
};

// The unit of routing: one client message with all that the router needs to move it. A value: the
// route queue and the entries' queues hold copies, and all copies share the one file that backs
// them. The destructor never touches the file; only Retire removes it.
// While an envelope waits it is shrunk: payload and certificate live in the file alone.
// Threads: one at a time.
class Envelope {
 public:
  enum class ShrinkState : unsigned char { Expanded, Shrunk, ShrinkingOff };

  Envelope();
  // Backed by that file; FromPersistent fills it.
  explicit Envelope(const std::string& fileName);

  // The three creators, each on an envelope just constructed. On return the envelope is on disk.
  // They throw BrelixMessaging::Rejected for a type that this originator may not send, and for an
  // envelope so large that it might not get out again (EnvelopeTooLarge for the router's own), and
  // std::runtime_error if the file can't be written or a text would not read back as it is; nothing
  // is left behind then.
  void CreateFromClient(const BrelixMessaging::Message& message, const std::string& originator,
                        const std::string& originatorCertificate);
  void CreateFromRouter(const BrelixMessaging::Envelope& wire, bool fromParent);
  // The router's own messages. A failed write is logged, and the envelope lives on in memory. With
  // 0 for an id it gets the next, for which it may have to wait.
  void CreateLocal(const std::string& destination, std::uint32_t priority, TimeToLive ttl,
                   const std::string& type, const CORBA::Any& data, const std::string& options,
                   std::uint32_t messageId = 0);

  // What leaves the router; the caller owns it. Reads the file if the envelope is shrunk; throws
  // what IsDiscardableError knows if that or the decoding of the payload fails, or if the peer
  // could not take the envelope. A file that is there and can't be read has been set aside then.
  BrelixMessaging::Envelope* ToWire(bool qualifyOriginator);

  // Fills the envelope from its file. False, with a warning, if a field can't be decoded. Throws
  // std::runtime_error if the file can't be opened, PassingShortage or std::bad_alloc if that may
  // well be different at another moment.
  bool FromPersistent();
  // Sets the file aside, under its name with ".bad".
  void MarkInvalid();
  // The end of the envelope's life: leaves the trail if that is on, and removes the file. One that
  // can't be removed comes back at the next start.
  void Retire() noexcept;

  void GetData(CORBA::Any& data);
  const std::string& GetOriginatorCert();
  void Shrink();
  void Expand();

  std::string NextHop() const;  // empty if none is left
  std::size_t HopCount() const;
  void PopHop();
  bool HopPopped() const { return hopPopped_; }  // the address is no longer as it came
  bool IsExpired() const;

  std::string DescribeShort() const;  // "id=0A0B0C0D"
  std::string Describe() const;

  std::string FileName() const;
  std::uint32_t PersistentIndex() const { return persistentIndex_; }
  bool FromParent() const { return fromParent_; }
  const std::string& Originator() const { return originator_; }
  const Timestamps& Stamps() const { return timestamps_; }
  std::vector<std::string> PhysicalDestination() const;
  std::uint32_t MessageId() const { return messageId_; }
  const std::string& Destination() const { return destination_; }
  std::uint32_t Priority() const { return priority_; }
  std::int64_t Ttl() const { return ttl_; }  // absolute; 0 never expires
  const std::string& Type() const { return type_; }
  const std::string& Options() const { return options_; }
  ShrinkState State() const { return shrinkState_; }

 private:
  friend class EnvelopeBuilder;  // tests/support

  // What a waiting envelope has in its file alone.
  struct HeavyFields {
    std::string certificate;
    std::string data;  // as Encoding::EncodeAny gives it
  };

  void FillFromMessage(const BrelixMessaging::Message& message, std::size_t largest);
  // What it takes on the wire, or a little more. Only while it is not shrunk.
  std::size_t WireSize() const;
  // Throws EnvelopeTooLarge for what a peer could never take, and the link would never get rid of.
  void RequireRoom(const std::string& originator, bool toRouter) const;
  // Throws std::runtime_error for a text that would not read back.
  void RequireTextsReadBack() const;
  // The file's text.
  std::string Compose() const;
  // Writes the file and shrinks. False, logged, and without a file, if that fails.
  bool WritePersistent();
  void ReadFields(std::string_view text, std::string_view& key);
  void SetField(std::string_view key, std::string_view firstLine, std::string_view value);
  // Expands, and decodes the payload into `data` on the way. False if the envelope was not shrunk,
  // and nothing is decoded then.
  bool ExpandWithData(CORBA::Any& data);
  void SetFileName(const std::string& fileName);

  // Kept small: a router may hold a million. The heavy fields and what is rare cost a pointer while
  // they are missing, the folder of a file is known, and the usual texts fit into the strings.
  std::string file_;  // the name alone where the file stands in the store's folder, else the path
  std::uint32_t persistentIndex_ = 0;
  std::uint32_t messageId_ = 0;
  std::uint32_t priority_ = 0;
  bool fromParent_ = false;
  bool hopPopped_ = false;
  bool inStoreFolder_ = false;
  ShrinkState shrinkState_;
  std::int64_t ttl_ = 0;
  std::string originator_;
  std::string physicalDestination_;  // joined
  std::string destination_;
  std::string type_;
  std::string options_;
  Timestamps timestamps_;
  CopiedPointer<HeavyFields> heavy_;
};

// Whether the exception says that the envelope's stored data is broken, or that it can never get
// out; logs it then, and the caller drops the envelope. False means that the send failed for
// another reason.
bool IsDiscardableError(const std::exception& exception, const Envelope& envelope);

// The value of MessageTimeoutSec (default 43200), read once in the life of the process.
std::uint32_t MessageTimeoutSeconds();

}  // namespace MessageRouter
