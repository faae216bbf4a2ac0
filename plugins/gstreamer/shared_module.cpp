#include "plugins/gstreamer/shared_module.h"

#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "host/core/module_host.h"

namespace tavro::gstreamer {

namespace {

namespace fs = std::filesystem;

struct Use {
  int users = 0;
  bool isOurs = false;  ///< false: the application has loaded it, and unloads it
};

std::mutex usesLock;

/// By registered name. Never destroyed: an element may outlive the static objects.
std::map<std::string, Use>& uses() {
  static auto* all = new std::map<std::string, Use>;
  return *all;
}

/// The default module, or empty with the reason in `failure`.
fs::path findModule(Failure& failure) {
  std::string path;
  if (const host::Status status = host::findDetector(path); !status.ok())
    failure = {
        true, "The face detector's module isn't there; name its file with the property \"module\".",
        status.error};
  return path;
}

/// The name of the loaded module that came from `path`, or empty.
std::string loadedFrom(const fs::path& path) {
  std::error_code error;
  for (const host::ModuleInfo& module : host::modules())
    if (!module.path.empty() && fs::equivalent(module.path, path, error))
      return module.name;
  return {};
}

}  // namespace

std::optional<SharedModule> SharedModule::acquire(const std::string& path, Failure& failure) {
  const fs::path file = path.empty() ? findModule(failure) : fs::path(path);
  if (file.empty())
    return std::nullopt;
  std::error_code error;
  if (!fs::exists(file, error)) {
    failure = {true, "There is no face detector module \"" + file.string() + "\".",
               error ? error.message() : std::string()};
    return std::nullopt;
  }
  const std::lock_guard lock(usesLock);
  std::string name = loadedFrom(file);
  const bool isOurs = name.empty();
  if (isOurs) {
    const host::Status status = host::loadModule(file.string(), &name);
    if (!status.ok()) {
      failure = {false, "The face detector's module can't be used.", status.error};
      return std::nullopt;
    }
  }
  Use& use = uses().try_emplace(name, Use{0, isOurs}).first->second;
  ++use.users;
  return SharedModule(std::move(name));
}

SharedModule::SharedModule(SharedModule&& other) noexcept
    : name_(std::exchange(other.name_, std::string())) {}

SharedModule::~SharedModule() {
  if (name_.empty())
    return;
  const std::lock_guard lock(usesLock);
  const auto use = uses().find(name_);
  if (use == uses().end() || --use->second.users > 0)
    return;
  // Refused only while the application holds instances of its own; the module then stays.
  if (use->second.isOurs)
    static_cast<void>(host::unloadModule(name_));
  uses().erase(use);
}

}  // namespace tavro::gstreamer
