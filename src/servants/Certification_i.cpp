#include "servants/Certification_i.h"

#include "logging/Log.h"
#include "servants/Frame.h"

namespace RouterServants {

using MessageRouter::LogWarning;

// The name is not logged: it is a stranger's own text.
void Certification_i::CertLogon(const char*, BrelixMessaging::MessageConsumer_out,
                                BrelixMessaging::EnvelopeSupplier_out) {
  Operation("Certification::CertLogon", [] {
    LogWarning("Certification is not available in this version: a logon is refused\n");
    throw BrelixMessaging::Rejected();
  });
}

void Certification_i::CertLogoff(const char*) {
  Operation("Certification::CertLogoff", [] {
    LogWarning("Certification is not available in this version: a logoff is refused\n");
    throw BrelixMessaging::Rejected();
  });
}

}  // namespace RouterServants
