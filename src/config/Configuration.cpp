#include "config/Configuration.h"

#include <memory>
#include <stdexcept>

#include "config/ACE_XPlatform_Configuration.h"
#include "logging/Log.h"
#include "platform/Files.h"
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

// Runs `use` on the store (null before there is one) with the mutex held; `otherwise` if the mutex
// can't be taken.
template <class Function, class Result>
Result WithStore(Function&& use, Result otherwise) {
  TheConfiguration& current = Current();
  const ThreadHelper::Guard guard(current.mutex);
  if (!guard) return otherwise;
  return use(current.store.get());
}

// Runs `get` on the store; its result counts where it finds the value.
template <class Get, class Result>
Result ValueOr(const Result& defaultValue, ACE_XPlatform_Configuration* store, Get&& get) {
  bool found = false;
  if (store == nullptr) return defaultValue;
  Result value = get(*store, found);
  return found ? value : defaultValue;
}

// Runs `set` on the store with the lock of its file, for which it waits before it takes the mutex:
// readers need not wait with it. Without a store or the mutex nothing is done.
template <class Set>
void Store(Set&& set) {
  const std::string path = WithStore(
      [](ACE_XPlatform_Configuration* store) {
        return store == nullptr ? std::string() : store->FilePath();
      },
      std::string());
  if (path.empty()) return;
  const Platform::FileLock lock(path);
  WithStore(
      [&](ACE_XPlatform_Configuration* store) {
        bool ok = false;
        // Another store may have come meanwhile, on another file.
        set(*store, ok, store->FilePath() == path ? &lock : nullptr);
        return ok;
      },
      false);
}

}  // namespace

std::uint32_t GetConfigInt(const char* name, std::uint32_t defaultValue) {
  return WithStore(
      [&](ACE_XPlatform_Configuration* store) {
        return ValueOr(defaultValue, store, [&](ACE_XPlatform_Configuration& s, bool& found) {
          return s.GetIntegerValue(name, found);
        });
      },
      std::uint32_t{0});
}

bool GetConfigBool(const char* name, bool defaultValue) {
  return WithStore(
      [&](ACE_XPlatform_Configuration* store) {
        return ValueOr(defaultValue, store, [&](ACE_XPlatform_Configuration& s, bool& found) {
          return s.GetBooleanValue(name, found);
        });
      },
      false);
}

std::string GetConfigString(const char* name, const std::string& defaultValue,
                            std::size_t maximumSize) {
  std::string value = WithStore(
      [&](ACE_XPlatform_Configuration* store) {
        if (defaultValue.size() > maximumSize) {
          throw std::invalid_argument(
              "The length of the default string value exceeds the maxSize parameter value.");
        }
        return ValueOr(defaultValue, store, [&](ACE_XPlatform_Configuration& s, bool& found) {
          return s.GetStringValue(name, found);
        });
      },
      std::string());
  if (value.size() <= maximumSize) return value;
  LogError(
      "The configuration property value length %zu exceeds the maximum size %zu expected for this "
      "parameter. The value will be truncated.\n",
      value.size(), maximumSize);
  value.resize(maximumSize);
  return value;
}

void SetConfigInt(const char* name, std::uint32_t value) {
  Store([&](ACE_XPlatform_Configuration& store, bool& ok, const Platform::FileLock* lock) {
    store.SetIntegerValue(name, value, ok, lock);
  });
}

void SetConfigBool(const char* name, bool value) {
  SetConfigInt(name, value ? 1 : 0);
}

void SetConfigString(const char* name, const std::string& value) {
  Store([&](ACE_XPlatform_Configuration& store, bool& ok, const Platform::FileLock* lock) {
    store.SetStringValue(name, value, ok, lock);
  });
}

void SaveConfiguration() {
  const bool saved = WithStore(
      [](ACE_XPlatform_Configuration* store) { return store == nullptr || store->Flush(); }, true);
  if (!saved) LogError("Failed to save configuration\n");
}

void SetConfiguration(ACE_XPlatform_Configuration* configuration, const std::string& sectionPath) {
  if (configuration == nullptr) {
    throw std::invalid_argument("Null configuration object passed to the initialization routine.");
  }
  TheConfiguration& current = Current();
  const ThreadHelper::Guard guard(current.mutex);
  bool opened = false;
  if (guard) {
    if (current.store.get() != configuration) current.store.reset(configuration);
    opened = configuration->OpenSection(sectionPath, true);
  }
  if (!opened) {
    LogError("Failed to open configuration section\n");
    throw std::runtime_error("Failed to open configuration section");
  }
}

}  // namespace MessageRouter
