#include "broker/Interceptors.h"

#include <openssl/crypto.h>

#include <atomic>

#include "broker/CallRecord.h"
#include "broker/OrbInternals.h"
#include "broker/StrandConnection.h"
#include "platform/Process.h"

namespace Broker {
namespace {

using omni::omniInterceptors;

void NoteUse(Connection& connection) {
  connection.lastUse = Platform::Clock::Instance().SteadyNow();
}

CORBA::Boolean OnReceiveRequest(omniInterceptors::serverReceiveRequest_T::info_T& info) {
  omni::giopStrand& strand = info.giop_s.strand();
  Connection* const connection = ConnectionOf(strand);
  if (connection != nullptr) {
    NoteUse(*connection);
    ++connection->requests;
    connection->receivedAtRequest = connection->received.load();
  }
  Call& call = CallRecord::Begin();
  call.operation = info.giop_s.operation();
  call.tls = connection != nullptr;
  call.certificate = nullptr;
  call.ssl = nullptr;
  if (call.tls) {
    // The ORB has details of a peer that showed a certificate only.
    if (auto* const peer = static_cast<sslContext::PeerDetails*>(info.peerdetails())) {
      call.certificate = peer->cert();
      call.ssl = peer->ssl();
    }
  }
  call.socket = SocketOf(strand);
  call.peerAddress = info.peeraddress();
  call.objectKey = info.giop_s.key();
  call.objectKeySize =
      info.giop_s.keysize() > 0 ? static_cast<std::size_t>(info.giop_s.keysize()) : 0;
  CallRecord::Inspect();
  return true;
}

CORBA::Boolean OnSendReply(omniInterceptors::serverSendReply_T::info_T&) {
  CallRecord::End();
  return true;
}

CORBA::Boolean OnSendException(omniInterceptors::serverSendException_T::info_T&) {
  CallRecord::End();
  return true;
}

CORBA::Boolean OnSendRequest(omniInterceptors::clientSendRequest_T::info_T& info) {
  if (Connection* const connection = ConnectionOf(info.giop_c.strand())) NoteUse(*connection);
  return true;
}

std::atomic<unsigned> orbThreads{0};

void NoteThreadEnd() {
  --orbThreads;
}

// The ORB doesn't wait for its threads at its end. What OpenSSL and ACE keep for each must be freed
// before the process ends, and before it frees what they share.
void OnCreateThread(omniInterceptors::createThread_T::info_T& info) {
  ++orbThreads;
  const bool noted = Platform::RunAtThreadEnd(&NoteThreadEnd);
  Platform::SetThreadName("broker");
  info.run();
  OPENSSL_thread_stop();
  if (!noted) NoteThreadEnd();
}

}  // namespace

void AwaitEndOfThreads(std::chrono::milliseconds patience) {
  constexpr std::chrono::milliseconds kStep{1};
  for (auto waited = std::chrono::milliseconds::zero(); orbThreads > 0 && waited < patience;
       waited += kStep) {
    Platform::SleepMilliseconds(static_cast<unsigned>(kStep.count()));
  }
}

void InstallInterceptors() {
  omniInterceptors* const interceptors = omniORB::getInterceptors();
  interceptors->serverReceiveRequest.add(&OnReceiveRequest);
  interceptors->serverSendReply.add(&OnSendReply);
  interceptors->serverSendException.add(&OnSendException);
  interceptors->clientSendRequest.add(&OnSendRequest);
  interceptors->createThread.add(&OnCreateThread);
}

}  // namespace Broker
