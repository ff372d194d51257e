#include "broker/Router_Resource_Factory.h"

#include "config/Configuration.h"
#include "logging/Log.h"

namespace MessageRouter {
namespace {

constexpr unsigned kDefaultConnectionCache = 10;

}  // namespace

Router_Resource_Factory::Router_Resource_Factory(unsigned descriptorLimit, unsigned builtInMaximum)
    : maximum_(GetConfigInt("ConnectionCache", kDefaultConnectionCache)) {
  if (maximum_ > descriptorLimit) {
    LogWarning("Connection cache limit (%d) is greater than ACE_FD_SETSIZE (%d)\n",
               static_cast<int>(maximum_), static_cast<int>(descriptorLimit));
    maximum_ = descriptorLimit;
  } else if (maximum_ == 0) {
    maximum_ = builtInMaximum;
  }
  LogInfo("Connection cache limit is %d\n", static_cast<int>(maximum_));
}

}  // namespace MessageRouter
