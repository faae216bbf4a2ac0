#include "host/core/module_host.h"

#include <exception>
#include <filesystem>
#include <mutex>
#include <new>
#include <utility>

#include "host/core/module_registry.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

using TavroRTC::FDModule::createInstanceCommand;
using TavroRTC::FDModule::destroyInstanceCommand;
using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::ModuleCallback;
using TavroRTC::FDModule::ModuleCommand;

namespace {

/// Runs an operation whose failures are values, a lack of memory included. The message is short
/// enough to need no heap of its own.
template <typename Operation>
Status guarded(Operation&& operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return {"out of memory"};
  } catch (const std::exception& failure) {
    return {failure.what()};
  }
}

// Where the detector lies, seen from this library's folder.
constexpr const char* detectorFolders[] = {
    ".",
    "../../modules/face_detection",  // in the build tree
};

Status find(std::string& path) {
  namespace fs = std::filesystem;
  const fs::path library =
      pathFromUtf8(SharedLibrary::fileOf(reinterpret_cast<const void*>(&find)));
  std::string places;
  for (const char* folder : detectorFolders) {
    const fs::path file =
        (fs::absolute(library).parent_path() / folder / TAVRO_MODULE_FILE).lexically_normal();
    if (fs::exists(file)) {
      path = utf8FromPath(file);
      return {};
    }
    places += (places.empty() ? "" : " or ") + utf8FromPath(file.parent_path());
  }
  return {"the detector " TAVRO_MODULE_FILE " isn't in " + places};
}

/// A load that closes its file again unless it was adopted, however it ends.
struct Loading {
  explicit Loading(ModuleRegistry& table) : registry(table) {}
  ~Loading() {
    if (library.handle() == nullptr)
      return;
    library.close();
    registry.forget(record);
  }
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;

  ModuleRegistry& registry;
  const LoadRecord record;
  SharedLibrary library;
};

Status load(const std::string& path, std::string* name) {
  ModuleRegistry& registry = ModuleRegistry::instance();
  const std::lock_guard lock(registry.loadLock());
  Loading loading(registry);
  if (const std::string error = loading.library.open(path); !error.empty())
    return {"can't load the module " + path + ": " + error};
  if (const std::string owner = registry.nameOf(loading.library); !owner.empty())
    return {"can't load the module " + path + ": it is loaded already, as '" + owner + "'"};
  const LoadRecord& record = loading.record;
  if (record.name.empty())
    return {"can't load the module " + path + ": " +
            (record.refusal.empty() ? "it isn't a module, it registers nothing"
                                    : "its registration was refused, " + record.refusal)};
  std::string registered = record.name;
  registry.adopt(registered, std::move(loading.library), path);
  if (name != nullptr)
    *name = std::move(registered);
  return {};
}

Status unload(const std::string& name) {
  ModuleRegistry& registry = ModuleRegistry::instance();
  const std::lock_guard lock(registry.loadLock());
  SharedLibrary library;
  if (Status status = registry.beginUnload(name, library); !status.ok())
    return status;
  library.close();
  // A module that doesn't unregister itself must not leave a callback into closed memory.
  registry.remove(name.c_str());
  return {};
}

Status create(const std::string& name, FDWrapper** instance) {
  if (instance == nullptr)
    return {"there is no place for the instance to make"};
  *instance = nullptr;
  ModuleRegistry& registry = ModuleRegistry::instance();
  ModuleCallback callback = nullptr;
  if (Status status = registry.reserveInstance(name, callback); !status.ok())
    return status;
  FDWrapper* made = nullptr;
  ModuleCommand command{.code = createInstanceCommand, .object = static_cast<void*>(&made)};
  const int32_t result = callback(nullptr, &command);
  if (result != 0)
    made = nullptr;
  try {
    registry.settleInstance(name, made);
  } catch (...) {
    ModuleCommand destroy{.code = destroyInstanceCommand, .object = made};
    callback(nullptr, &destroy);
    registry.settleInstance(name, nullptr);
    throw;
  }
  if (result != 0)
    return {"module '" + name + "' refused to make an instance: " + std::to_string(result)};
  if (made == nullptr)
    return {"module '" + name + "' had no memory for an instance"};
  *instance = made;
  return {};
}

Status destroy(FDWrapper* instance) {
  ModuleRegistry& registry = ModuleRegistry::instance();
  std::string name;
  ModuleCallback callback = nullptr;
  if (Status status = registry.releaseInstance(instance, name, callback); !status.ok())
    return status;
  ModuleCommand command{.code = destroyInstanceCommand, .object = instance};
  const int32_t result = callback(nullptr, &command);
  registry.settleInstance(name, nullptr);
  if (result != 0)
    return {"module '" + name + "' failed to destroy an instance: " + std::to_string(result)};
  return {};
}

}  // namespace

Status findDetector(std::string& path) {
  return guarded([&] { return find(path); });
}

std::string squareDetectorBeside(const std::string& path) {
  const std::filesystem::path file = pathFromUtf8(path);
  std::filesystem::path beside = file;
  beside.replace_filename(file.stem().concat("_square").concat(file.extension().native()));
  std::error_code failure;
  return std::filesystem::exists(beside, failure) ? utf8FromPath(beside) : "";
}

Status loadModule(const std::string& path, std::string* name) {
  return guarded([&] { return load(path, name); });
}

Status unloadModule(const std::string& name) {
  return guarded([&] { return unload(name); });
}

Status createInstance(const std::string& name, FDWrapper** instance) {
  return guarded([&] { return create(name, instance); });
}

Status destroyInstance(FDWrapper* instance) {
  return guarded([&] { return destroy(instance); });
}

std::vector<ModuleInfo> modules() {
  return ModuleRegistry::instance().list();
}

std::optional<ModuleInfo> findModule(const std::string& name) {
  for (ModuleInfo& info : ModuleRegistry::instance().list())
    if (info.name == name)
      return std::move(info);
  return std::nullopt;
}

Status setBoundaryObserver(BoundaryObserver observer) {
  return guarded([&] {
    ModuleRegistry::instance().setObserver(std::move(observer));
    return Status{};
  });
}

}  // namespace tavro::host
