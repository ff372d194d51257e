#include "broker/ConnectionTable.h"

#include <ace/OS_NS_sys_socket.h>

#include <algorithm>
#include <chrono>
#include <unordered_map>

#include "broker/Limits.h"
#include "platform/Network.h"
#include "platform/Process.h"

namespace Broker {
namespace {

using Platform::Clock;
using Stage = Connection::Stage;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ThreadHelper::Guard;

constexpr unsigned char kApplicationData = SSL3_RT_APPLICATION_DATA;
constexpr std::size_t kRecordHeaderBytes = 5;  // type, version, length

std::uint32_t AddressOf(Connection& connection) {
  if (connection.addressKnown) return connection.address;
  const int socket = SSL_get_fd(connection.tls);
  if (socket < 0) return 0;  // it has none yet
  const auto peer = Platform::PeerAddress(socket);
  connection.address = peer ? peer->address : 0;
  connection.addressKnown = true;
  return connection.address;
}

}  // namespace

// Never destroyed: TLS objects may outlive the static objects of the program.
ConnectionTable& ConnectionTable::Instance() {
  static auto* const table = new ConnectionTable;
  return *table;
}

int ConnectionTable::Index() {
  static const int index =
      SSL_get_ex_new_index(0, nullptr, &ConnectionTable::OnNew, nullptr, &ConnectionTable::OnFree);
  return index;
}

void ConnectionTable::Watch(SSL_CTX* context, void (*info)(const SSL*, int where, int ret)) {
  Index();  // from here on each new TLS object is announced
  info_ = info;
  context_ = context;
  if (context == nullptr) return;
  SSL_CTX_set_info_callback(context, &ConnectionTable::OnInfo);
  SSL_CTX_set_msg_callback(context, &ConnectionTable::OnRecord);
}

void ConnectionTable::SetPeerLimits(unsigned keepAliveSeconds, unsigned peerTimeoutSeconds) {
  keepAliveSeconds_ = keepAliveSeconds;
  peerTimeoutSeconds_ = peerTimeoutSeconds;
}

Connection* ConnectionTable::Of(const SSL* tls) {
  return tls == nullptr ? nullptr : static_cast<Connection*>(SSL_get_ex_data(tls, Index()));
}

void ConnectionTable::Shut(Connection& connection) {
  const int socket = SSL_get_fd(connection.tls);
  if (socket < 0 || connection.shut.exchange(true)) return;
  ++shut_;
  ++dying_;
  ACE_OS::shutdown(socket, ACE_SHUTDOWN_BOTH);
}

void ConnectionTable::EnforceDeadlines() {
  const Clock::SteadyTime now = Platform::SteadyNow();
  const Guard guard(mutex_);
  if (!guard) return;
  for (const auto& [number, connection] : handshakes_) {
    if (now - connection->made > seconds(Limits::kHandshakeSeconds)) Shut(*connection);
  }
  for (const auto& [number, connection] : strangers_) {
    if (now - connection->lastUse.load() > seconds(Limits::kStrangerIdleSeconds)) {
      Shut(*connection);
    }
  }
}

void ConnectionTable::ShutUnknown() {
  const Guard guard(mutex_);
  if (!guard) return;
  for (const auto& [number, connection] : handshakes_) Shut(*connection);
  for (const auto& [number, connection] : strangers_) Shut(*connection);
}

ConnectionTable::Counts ConnectionTable::Count() const {
  const Guard guard(mutex_);
  if (!guard) return {};
  return {handshakes_.size(), strangers_.size(), shut_};
}

void ConnectionTable::OnNew(void* tls, void*, CRYPTO_EX_DATA*, int, long, void*) {
  ConnectionTable& table = Instance();
  auto* const object = static_cast<SSL*>(tls);
  SSL_CTX* const context = table.context_;
  if (context != nullptr && SSL_get_SSL_CTX(object) == context) table.Add(object);
}

void ConnectionTable::OnFree(void*, void* value, CRYPTO_EX_DATA*, int, long, void*) {
  if (value != nullptr) Instance().Remove(static_cast<Connection*>(value));
}

// Runs on the thread that accepts connections, or on one that opens one.
void ConnectionTable::Add(SSL* tls) {
  MakeRoomForHandshake();
  const Guard guard(mutex_);
  if (!guard) return;
  auto* const connection = new Connection(tls, ++made_, Platform::SteadyNow());
  if (SSL_set_ex_data(tls, Index(), connection) != 1) {
    delete connection;
    return;
  }
  handshakes_.emplace(connection->number, connection);
}

void ConnectionTable::Remove(Connection* connection) {
  {
    const Guard guard(mutex_);
    handshakes_.erase(connection->number);
    strangers_.erase(connection->number);
  }
  if (connection->shut) --dying_;
  delete connection;
}

void ConnectionTable::OnInfo(const SSL* tls, int where, int ret) {
  ConnectionTable& table = Instance();
  if (Connection* const connection = Of(tls)) {
    if ((where & SSL_CB_HANDSHAKE_START) != 0) table.HandshakeBegins(*connection);
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0) table.HandshakeEnds(*connection);
  }
  if (auto* const info = table.info_.load()) info(tls, where, ret);
}

void ConnectionTable::HandshakeBegins(Connection& connection) {
  if (connection.stage != Stage::kSilent) return;  // TLS 1.3 announces later messages like this too
  Platform::KeepAlive(SSL_get_fd(connection.tls), keepAliveSeconds_, peerTimeoutSeconds_);
  if (SSL_is_server(connection.tls) != 0) {
    connection.stage = Stage::kHandshake;
    return;
  }
  connection.stage = Stage::kOutgoing;
  const Guard guard(mutex_);
  if (guard) handshakes_.erase(connection.number);
}

void ConnectionTable::HandshakeEnds(Connection& connection) {
  if (connection.stage != Stage::kHandshake) return;
  // In TLS 1.3 the peer's part of the handshake looks like data from outside.
  connection.received = 0;
  connection.lastUse = Platform::SteadyNow();
  const bool known = SSL_get0_peer_certificate(connection.tls) != nullptr;
  connection.stage = known ? Stage::kPeer : Stage::kStranger;
  const Guard guard(mutex_);
  if (!guard) return;
  handshakes_.erase(connection.number);
  if (known) return;
  if (strangers_.size() >= Limits::kMaxStrangers) {
    if (Connection* const victim = LeastWorthy(strangers_)) {
      Shut(*victim);
      strangers_.erase(victim->number);
    }
  }
  strangers_.emplace(connection.number, &connection);
}

void ConnectionTable::OnRecord(int written, int, int type, const void* content, std::size_t size,
                               SSL* tls, void*) {
  if (type != SSL3_RT_HEADER || size < kRecordHeaderBytes) return;
  const auto* const header = static_cast<const unsigned char*>(content);
  if (header[0] != kApplicationData) return;
  Connection* const connection = Of(tls);
  if (connection == nullptr) return;
  const std::uint64_t length = static_cast<std::uint64_t>(header[3]) << 8 | header[4];
  if (written != 0) {
    connection->sent += length;
    return;
  }
  const std::uint64_t received = connection->received += length;
  const Stage stage = connection->stage;
  if (stage != Stage::kStranger && stage != Stage::kPeer) return;
  const std::uint64_t limit =
      stage == Stage::kStranger ? Limits::kStrangerMessageBytes : Limits::kPeerMessageBytes;
  if (received - connection->receivedAtRequest > limit) Instance().Shut(*connection);
}

// Accepting waits a little for handshakes to finish before one of them has to go: after a restart
// all peers come at once, and they are welcome.
void ConnectionTable::MakeRoomForHandshake() {
  for (unsigned waited = 0;; ++waited) {
    const std::size_t handshakes = Count().handshakes;
    if (handshakes < Limits::kMaxHandshakes) return;
    const bool tooMany = handshakes >= Limits::kMostHandshakes;
    // What was shut is cleaned up by other threads, which must keep up with this one.
    const bool keptUp = dying_ < Limits::kMostHandshakes;
    if (ShutOneHandshake(tooMany) && keptUp) return;
    if (waited == Limits::kAcceptPauseMilliseconds) return;
    Platform::SleepMilliseconds(1);
  }
}

bool ConnectionTable::ShutOneHandshake(bool whateverItsAge) {
  const Guard guard(mutex_);
  if (!guard) return false;
  Connection* const victim = LeastWorthy(handshakes_);
  if (victim == nullptr) return false;
  const milliseconds grace(victim->stage == Stage::kSilent ? Limits::kSilentGraceMilliseconds
                                                           : Limits::kHandshakeGraceMilliseconds);
  if (!whateverItsAge && Platform::SteadyNow() - victim->made < grace) return false;
  Shut(*victim);
  // It counts no longer, though its thread may need a moment to notice.
  handshakes_.erase(victim->number);
  return true;
}

// The least recently used of the address that has the most: one host alone can't drive out others.
Connection* ConnectionTable::LeastWorthy(const Connections& connections) {
  std::unordered_map<std::uint32_t, unsigned> perAddress;
  unsigned most = 0;
  for (const auto& [number, connection] : connections) {
    most = std::max(most, ++perAddress[AddressOf(*connection)]);
  }
  Connection* victim = nullptr;
  for (const auto& [number, connection] : connections) {
    if (perAddress[AddressOf(*connection)] != most) continue;
    if (victim == nullptr || connection->lastUse.load() < victim->lastUse.load()) {
      victim = connection;
    }
  }
  return victim;
}

}  // namespace Broker
