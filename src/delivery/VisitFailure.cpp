#include "delivery/VisitFailure.h"

#include <BrelixMessaging.h>

#include <exception>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"

namespace MessageRouter {

void LogVisitFailure(const char* worker) {
  try {
    throw;
  } catch (const BrelixMessaging::CertificateExpired& exception) {
    LogCaughtCorbaException(worker, exception, "certificate expiry");
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException(worker, exception, "");
  } catch (const std::exception& exception) {
    LogCaughtException(worker, exception, "");
  }
}

}  // namespace MessageRouter
