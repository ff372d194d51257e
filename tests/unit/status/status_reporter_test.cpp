#include "status/StatusReporter.h"

#include <gmock/gmock.h>

#include "logging/Log.h"
#include "support/LogCapture.h"

namespace StatusReporting {
namespace {

TEST(StatusReporterSeam, SaysOnceThatNoReportIsWritten) {
  TestSupport::LogCapture log;
  StatusReporter first("folder/ReportData.xml");
  first.WriteReport();
  first.WriteReport();
  StatusReporter second("folder/ReportData.xml");
  second.WriteReport();
  EXPECT_EQ(log.Count("\"folder/ReportData.xml\" is not written\n"), 1u);
}

TEST(StatusReporterSeam, ActualParentIsLogged) {
  TestSupport::LogCapture log;
  StatusReporter reporter("");
  reporter.SetActualParent("parent.example");
  EXPECT_TRUE(log.Has(MessageRouter::kLogDebug, "Actual parent is `parent.example`"));
}

TEST(StatusReporterSeam, SectionsTakeObservationsAndKeepNothing) {
  TestSupport::LogCapture log;
  StatusReporter reporter("");
  reporter.Dns().addFailedAddress("host");
  reporter.Dns().Update();
  reporter.Dns().Reset();
  reporter.Certification().ReportPeer(1);
  reporter.Incoming().Update(false, true);
  reporter.Incoming().ThresholdCall();
  reporter.Outgoing().Raise(OutgoingSection::kOwnIorInvalid, "text");
  reporter.Outgoing().Clear(OutgoingSection::kOwnIorInvalid);
  EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace StatusReporting
