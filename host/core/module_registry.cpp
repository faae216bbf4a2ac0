#include "host/core/module_registry.h"

#include <utility>

namespace tavro::host {

using TavroRTC::FDModule::FDWrapper;
using TavroRTC::FDModule::ModuleCallback;

namespace {
thread_local LoadRecord* currentLoad = nullptr;
}

LoadRecord::LoadRecord() : outer_(std::exchange(currentLoad, this)) {}
LoadRecord::~LoadRecord() {
  currentLoad = outer_;
}
LoadRecord* LoadRecord::current() {
  return currentLoad;
}

ModuleRegistry& ModuleRegistry::instance() {
  static auto* registry = new ModuleRegistry;
  return *registry;
}

int32_t ModuleRegistry::watch(const char* name, const void* codeAddress) {
  if (name == nullptr || *name == '\0' || codeAddress == nullptr)
    return -1;
  std::string file = SharedLibrary::fileOf(codeAddress);
  LoadRecord* load = LoadRecord::current();
  std::string seen(name);
  if (load != nullptr)
    load->seen.reserve(load->seen.size() + 1);
  const std::lock_guard lock(mutex_);
  if (!watched_.try_emplace(seen, std::move(file)).second)
    return -1;
  if (load != nullptr)
    load->seen.push_back(std::move(seen));
  return 0;
}

int32_t ModuleRegistry::add(const char* name, ModuleCallback callback) {
  LoadRecord* load = LoadRecord::current();
  std::string refusal;
  if (name == nullptr || *name == '\0' || callback == nullptr)
    refusal = "it registers without a name or a callback";
  else if (load != nullptr && !load->name.empty())
    refusal = "it has registered as '" + load->name + "' already";

  if (refusal.empty()) {
    std::string registered(name);
    const std::lock_guard lock(mutex_);
    const auto [position, added] = modules_.try_emplace(registered);
    if (added) {
      position->second.callback = callback;
      position->second.ready = load == nullptr;
      if (load != nullptr)
        load->name = std::move(registered);
    } else {
      refusal = "the name '" + std::string(name) + "' is taken by " +
                (position->second.path.empty() ? "another module" : position->second.path);
    }
  }
  if (load != nullptr && !refusal.empty() && load->refusal.empty())
    load->refusal = refusal;
  return refusal.empty() ? 0 : -1;
}

int32_t ModuleRegistry::remove(const char* name) {
  if (name == nullptr)
    return -1;
  const std::lock_guard lock(mutex_);
  const auto position = modules_.find(name);
  if (position == modules_.end())
    return -1;
  // The call comes out of this very library: closing it here would pull the code from under it.
  position->second.library.abandon();
  modules_.erase(position);
  if (const auto watched = watched_.find(name); watched != watched_.end())
    watched_.erase(watched);
  return 0;
}

std::string ModuleRegistry::nameOf(const SharedLibrary& library) {
  std::vector<std::pair<std::string, ModuleCallback>> cameInAnotherWay;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, module] : modules_) {
      if (module.library.handle() == library.handle())
        return name;
      if (module.library.handle() == nullptr && module.ready)
        cameInAnotherWay.emplace_back(name, module.callback);
    }
  }
  // The loader's own lock is held around initialisers, which want the mutex: never in this order.
  for (const auto& [name, callback] : cameInAnotherWay)
    if (library.holds(reinterpret_cast<const void*>(callback)))
      return name;
  return {};
}

void ModuleRegistry::adopt(const std::string& name, SharedLibrary&& library,
                           const std::string& path) {
  const std::lock_guard lock(mutex_);
  Module& module = modules_.at(name);
  module.path = path;  // which may throw, and leaves the library to the caller then
  module.library = std::move(library);
  module.ready = true;
}

void ModuleRegistry::forget(const LoadRecord& load) {
  const std::lock_guard lock(mutex_);
  modules_.erase(load.name);
  for (const std::string& name : load.seen)
    if (!modules_.contains(name))
      watched_.erase(name);
}

Status ModuleRegistry::beginUnload(const std::string& name, SharedLibrary& library) {
  const std::lock_guard lock(mutex_);
  const auto position = modules_.find(name);
  if (position == modules_.end())
    return {"no module is registered as '" + name + "'"};
  Module& module = position->second;
  if (module.library.handle() == nullptr)
    return {"module '" + name + "' wasn't loaded from a file by this host"};
  const size_t inUse = module.instances.size() + static_cast<size_t>(module.reservations);
  if (inUse != 0)
    return {"module '" + name + "' still has " + std::to_string(inUse) + " live instance" +
            (inUse == 1 ? "" : "s")};
  module.ready = false;
  library = std::move(module.library);
  return {};
}

std::vector<ModuleInfo> ModuleRegistry::list() {
  const std::lock_guard lock(mutex_);
  std::vector<ModuleInfo> infos;
  infos.reserve(modules_.size());
  for (const auto& [name, module] : modules_)
    infos.push_back({.name = name,
                     .path = module.path,
                     .watched = watched_.contains(name),
                     .liveInstances = static_cast<int32_t>(module.instances.size())});
  return infos;
}

Status ModuleRegistry::reserveInstance(const std::string& name, ModuleCallback& callback) {
  const std::lock_guard lock(mutex_);
  const auto position = modules_.find(name);
  if (position == modules_.end())
    return {"no module is registered as '" + name + "'"};
  if (!position->second.ready)
    return {"module '" + name + "' is being loaded or unloaded"};
  ++position->second.reservations;
  callback = position->second.callback;
  return {};
}

void ModuleRegistry::settleInstance(const std::string& name, FDWrapper* made) {
  const std::lock_guard lock(mutex_);
  const auto position = modules_.find(name);
  if (position == modules_.end())
    return;
  if (made != nullptr)
    position->second.instances.insert(made);
  --position->second.reservations;
}

Status ModuleRegistry::releaseInstance(FDWrapper* instance, std::string& name,
                                       ModuleCallback& callback) {
  const std::lock_guard lock(mutex_);
  for (auto& [moduleName, module] : modules_) {
    const auto position = module.instances.find(instance);
    if (position == module.instances.end())
      continue;
    name = moduleName;
    callback = module.callback;
    module.instances.erase(position);
    ++module.reservations;
    return {};
  }
  return {"the instance to destroy isn't alive"};
}

void ModuleRegistry::setObserver(BoundaryObserver observer) {
  auto shared = observer ? std::make_shared<const BoundaryObserver>(std::move(observer)) : nullptr;
  const std::lock_guard lock(mutex_);
  observer_.swap(shared);
}

int32_t ModuleRegistry::observe(const BoundaryCall& call) {
  std::shared_ptr<const BoundaryObserver> observer;
  {
    const std::lock_guard lock(mutex_);
    observer = observer_;
  }
  const int32_t verdict = observer ? (*observer)(call) : 0;
  LoadRecord* load = LoadRecord::current();
  if (verdict < 0 && call.kind == BoundaryCall::Kind::add && load != nullptr &&
      load->refusal.empty())
    load->refusal = "the host's observer refused it";
  return verdict;
}

}  // namespace tavro::host
