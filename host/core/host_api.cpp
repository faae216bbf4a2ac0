#include "host/core/host_api.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "host/core/module_host.h"

namespace {

using tavro::host::Status;
using TavroRTC::FDModule::FDWrapper;

constexpr size_t longestReason = 512;
thread_local char latestReason[longestReason] = "";

int32_t fail(const char* reason) {
  std::string_view text(reason);
  text = text.substr(0, longestReason - 1);
  *std::copy(text.begin(), text.end(), latestReason) = '\0';
  return -1;
}

/// Nothing is thrown to a caller who may not know exceptions.
template <typename Operation>
int32_t guarded(Operation&& operation) {
  try {
    const Status status = operation();
    return status.ok() ? 0 : fail(status.error.c_str());
  } catch (...) {
    return fail("out of memory");
  }
}

}  // namespace

int32_t tavro_host_load(const char* path, char* name, int32_t size) {
  if (path == nullptr)
    return fail("there is no name of a file");
  return guarded([&] {
    std::string registered;
    Status status = tavro::host::loadModule(path, &registered);
    if (!status.ok() || name == nullptr)
      return status;
    if (size <= 0 || registered.size() >= static_cast<size_t>(size)) {
      static_cast<void>(tavro::host::unloadModule(registered));
      return Status{"there is no room for the module's name"};
    }
    *std::copy(registered.begin(), registered.end(), name) = '\0';
    return status;
  });
}

int32_t tavro_host_unload(const char* name) {
  return guarded([&] { return tavro::host::unloadModule(name != nullptr ? name : ""); });
}

FDWrapper* tavro_host_create(const char* name) {
  FDWrapper* instance = nullptr;
  guarded([&] { return tavro::host::createInstance(name != nullptr ? name : "", &instance); });
  return instance;
}

int32_t tavro_host_destroy(FDWrapper* instance) {
  return guarded([&] { return tavro::host::destroyInstance(instance); });
}

const char* tavro_host_error() {
  return latestReason;
}
