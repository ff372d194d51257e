#include "security/OwnIdentity.h"

#include "threads/Mutex.h"

namespace MessageRouter::OwnIdentity {
namespace {

struct Identity {
  // Leaf lock.
  ThreadHelper::Mutex mutex;
  std::string commonName GUARDED_BY(mutex);
  std::string certificateText GUARDED_BY(mutex);
};

Identity& Own() {
  // Never destroyed: threads of the broker may still ask while the process ends.
  static Identity* const identity = new Identity;
  return *identity;
}

}  // namespace

std::string CommonName() {
  Identity& own = Own();
  ThreadHelper::Guard guard(own.mutex);
  return guard ? own.commonName : std::string();
}

std::string CertificateText() {
  Identity& own = Own();
  ThreadHelper::Guard guard(own.mutex);
  return guard ? own.certificateText : std::string();
}

void Set(const std::string& commonName, const std::string& certificateText) {
  Identity& own = Own();
  ThreadHelper::Guard guard(own.mutex);
  if (!guard) return;
  own.commonName = commonName;
  own.certificateText = certificateText;
}

}  // namespace MessageRouter::OwnIdentity
