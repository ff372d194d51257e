#include "config/Configuration.h"

#include <memory>
#include <stdexcept>

#include "config/ACE_XPlatform_Configuration.h"
#include "logging/Log.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

struct TheConfiguration {
  ThreadHelper::Mutex mutex;
  std::unique_ptr<ACE_XPlatform_Configuration> store GUARDED_BY(mutex);
};

// Never destroyed: settings are read until the process ends.
TheConfiguration& Current() {
  static auto* const configuration = new TheConfiguration;
  return *configuration;
}

// Runs `use` on the store with the mutex held; `otherwise` if there is none or the mutex can't be
// taken.
template <class Function, class Result>
Result WithStore(Function&& use, Result absent, Result otherwise) {
  TheConfiguration& current = Current();
  ThreadHelper::Guard guard(current.mutex);
  if (!guard) return otherwise;
  return current.store ? use(*current.store) : absent;
}

}  // namespace

std::uint32_t GetConfigInt(const char* name, std::uint32_t defaultValue) {
  return WithStore(
      [&](ACE_XPlatform_Configuration& store) {
        bool found = false;
        const std::uint32_t value = store.GetIntegerValue(name, found);
        return found ? value : defaultValue;
      },
      defaultValue, std::uint32_t{0});
}

bool GetConfigBool(const char* name, bool defaultValue) {
  return WithStore(
      [&](ACE_XPlatform_Configuration& store) {
        bool found = false;
        const bool value = store.GetBooleanValue(name, found);
        return found ? value : defaultValue;
      },
      defaultValue, false);
}

std::string GetConfigString(const char* name, const std::string& defaultValue,
                            std::size_t maximumSize) {
  const auto get = [&](ACE_XPlatform_Configuration& store) {
    bool found = false;
    std::string value = store.GetStringValue(name, found);
    return found ? value : defaultValue;
  };
  const auto checked = [&](ACE_XPlatform_Configuration& store) {
    if (defaultValue.size() > maximumSize) {
      throw std::invalid_argument(
          "The length of the default string value exceeds the maxSize parameter value.");
    }
    return get(store);
  };
  std::string value = WithStore(checked, defaultValue, std::string());
  if (value.size() <= maximumSize) return value;
  LogError(
      "The configuration property value length %zu exceeds the maximum size %zu expected for this "
      "parameter. The value will be truncated.\n",
      value.size(), maximumSize);
  value.resize(maximumSize);
  return value;
}

void SetConfigInt(const char* name, std::uint32_t value) {
  WithStore(
      [&](ACE_XPlatform_Configuration& store) {
        bool ok = false;
        store.SetIntegerValue(name, value, ok);
        return ok;
      },
      false, false);
}

void SetConfigBool(const char* name, bool value) {
  SetConfigInt(name, value ? 1 : 0);
}

void SetConfigString(const char* name, const std::string& value) {
  WithStore(
      [&](ACE_XPlatform_Configuration& store) {
        bool ok = false;
        store.SetStringValue(name, value, ok);
        return ok;
      },
      false, false);
}

void SaveConfiguration() {
  const bool saved =
      WithStore([](ACE_XPlatform_Configuration& store) { return store.Flush(); }, true, true);
  if (!saved) LogError("Failed to save configuration\n");
}

void SetConfiguration(ACE_XPlatform_Configuration* configuration, const std::string& sectionPath) {
  if (configuration == nullptr) {
    throw std::invalid_argument("Null configuration object passed to the initialization routine.");
  }
  TheConfiguration& current = Current();
  ThreadHelper::Guard guard(current.mutex);
  if (!guard) return;
  if (current.store.get() != configuration) current.store.reset(configuration);
  if (!configuration->OpenSection(sectionPath, true)) {
    LogError("Failed to open configuration section\n");
    throw std::runtime_error("Failed to open configuration section");
  }
}

}  // namespace MessageRouter
