#include "status/Sections.h"

namespace StatusReporting {

void DNSSection::addFailedAddress(const std::string&) {}
void DNSSection::Update() {}
void DNSSection::Reset() {}

void CertificationSection::ReportPeer(std::uint32_t) {}

void IncomingSection::Update(bool, bool) {}
void IncomingSection::ThresholdCall() {}

void OutgoingSection::Raise(int, const std::string&) {}
void OutgoingSection::Clear(int) {}

}  // namespace StatusReporting
