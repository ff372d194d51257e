#include "broker/CodecOrb.h"

#include <omniORB4/CORBA.h>

#include "broker/TypeCodeGuard.h"
#include "threads/Mutex.h"

namespace Broker {
namespace {

struct CodecOrb {
  ThreadHelper::Mutex mutex;
  CORBA::ORB_ptr orb GUARDED_BY(mutex) = CORBA::ORB::_nil();
};

// Never destroyed: an ORB must not go down among the static objects of its own library.
CodecOrb& TheCodecOrb() {
  static auto* const codec = new CodecOrb;
  return *codec;
}

}  // namespace

void MakeCodecOrb() {
  CodecOrb& codec = TheCodecOrb();
  const ThreadHelper::Guard guard(codec.mutex);
  if (!guard || !CORBA::is_nil(codec.orb)) return;
  int argc = 0;
  // Without a word about the TLS that it doesn't have.
  const char* options[][2] = {{"traceLevel", "0"}, {nullptr, nullptr}};
  codec.orb = CORBA::ORB_init(argc, nullptr, "omniORB4", options);
  TypeCodeGuard::RequireInForce();
}

void DestroyCodecOrb() {
  CodecOrb& codec = TheCodecOrb();
  const ThreadHelper::Guard guard(codec.mutex);
  if (!guard || CORBA::is_nil(codec.orb)) return;
  try {
    codec.orb->destroy();
  } catch (const CORBA::SystemException&) {
    // It was another's, and is gone already.
  }
  CORBA::release(codec.orb);
  codec.orb = CORBA::ORB::_nil();
}

}  // namespace Broker
