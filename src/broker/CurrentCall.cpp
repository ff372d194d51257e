#include "broker/CurrentCall.h"

#include <algorithm>
#include <atomic>

#include "broker/CallRecord.h"

namespace Broker {
namespace {

// The ORB's own operations ("_is_a", "_non_existent" ...) tell nothing that a reference doesn't,
// and a caller with no certificate needs them to narrow the root object.
constexpr char kOrbsOwn = '_';

std::atomic<RequestHook*> requestHook{nullptr};

// Kept from call to call, so that the address needs no new memory each time.
thread_local Call served;
thread_local const Call* current = nullptr;

}  // namespace

const Call* CurrentCall() {
  return current;
}

void SetRequestHook(RequestHook* hook) {
  requestHook = hook;
}

bool KeyIsOfAdapter(const Call& call, const std::vector<CORBA::Octet>& adapterId) {
  return call.objectKey != nullptr && call.objectKeySize >= adapterId.size() &&
         std::equal(adapterId.begin(), adapterId.end(), call.objectKey);
}

ScopedCall::ScopedCall(const Call& call) : call_(call), previous_(current) {
  current = &call_;
}

ScopedCall::~ScopedCall() {
  current = previous_;
}

Call& CallRecord::Begin() {
  current = &served;
  return served;
}

void CallRecord::Inspect() {
  RequestHook* const hook = requestHook;
  // Over TLS anybody may ask what an object is, so that a newcomer can narrow its reference.
  if (hook != nullptr && (!served.tls || *served.operation != kOrbsOwn)) hook->OnRequest(served);
}

void CallRecord::End() {
  current = nullptr;
}

}  // namespace Broker
