#include "servants/CertEnvelopeSupplier_i.h"

#include "servants/Frame.h"

namespace RouterServants {

BrelixMessaging::Envelope* CertEnvelopeSupplier_i::GetEnvelope() {
  return Operation("CertEnvelopeSupplier::GetEnvelope",
                   []() -> BrelixMessaging::Envelope* { throw BrelixMessaging::Rejected(); });
}

void CertEnvelopeSupplier_i::AcknowledgeEnvelope(const char*, BrelixMessaging::MessageId) {
  Operation("CertEnvelopeSupplier::AcknowledgeEnvelope", [] { throw BrelixMessaging::Rejected(); });
}

}  // namespace RouterServants
