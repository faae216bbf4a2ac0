#pragma once

// The process-wide table of registered modules: callbacks by name, the libraries behind them, which
// are watched, and the instances alive. Modules write to it through boundary.cpp while the loader
// runs their initialisers, applications through module_host.cpp. No lock is held while foreign code
// runs (loader, observer, callback), because all of these call back into this table. Memory may run
// out in any operation that stores something; the table is as before then. Removing needs none.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/core/module_host.h"
#include "host/core/shared_library.h"

namespace tavro::host {

/// What the module that this thread is loading has registered so far. Registrations find it through
/// LoadRecord::current(), since a module doesn't say which load it belongs to.
class LoadRecord {
 public:
  LoadRecord();
  ~LoadRecord();
  LoadRecord(const LoadRecord&) = delete;
  LoadRecord& operator=(const LoadRecord&) = delete;

  /// The innermost load that runs on this thread, or null.
  static LoadRecord* current();

  std::string name;               ///< registered name, empty if none
  std::string refusal;            ///< why the first refused registration was refused
  std::vector<std::string> seen;  ///< every name that this load was watched under

 private:
  LoadRecord* outer_;
};

class ModuleRegistry {
 public:
  /// The one table. Never destroyed: modules unregister themselves as late as in the process's own
  /// exit list.
  static ModuleRegistry& instance();

  // The modules' side: 0, or -1 if refused.
  int32_t watch(const char* name, const void* codeAddress);
  int32_t add(const char* name, TavroRTC::FDModule::ModuleCallback callback);
  int32_t remove(const char* name);

  // Loading and unloading. The load lock keeps two threads from loading one file at a time; it is
  // recursive because a module's initialiser may itself load a module.
  std::recursive_mutex& loadLock() { return loadLock_; }
  /// Name of the module that holds this library, or empty.
  std::string nameOf(const SharedLibrary& library);
  /// Binds a freshly registered module to its library; from now on it can make instances.
  void adopt(const std::string& name, SharedLibrary&& library, const std::string& path);
  /// Undoes what a refused load has left.
  void forget(const LoadRecord& load);
  /// Takes the library out for closing and bars new instances.
  Status beginUnload(const std::string& name, SharedLibrary& library);

  std::vector<ModuleInfo> list();

  // Instances. A reservation keeps the module loaded while its callback runs.
  Status reserveInstance(const std::string& name, TavroRTC::FDModule::ModuleCallback& callback);
  /// Ends a reservation; a non-null instance becomes one of the module's. If there is no memory to
  /// note it, the reservation stays.
  void settleInstance(const std::string& name, TavroRTC::FDModule::FDWrapper* made);
  /// Takes a live instance off its module and reserves the module in the same step.
  Status releaseInstance(TavroRTC::FDModule::FDWrapper* instance, std::string& name,
                         TavroRTC::FDModule::ModuleCallback& callback);

  void setObserver(BoundaryObserver observer);
  /// The observer's verdict on a call: 0 without an observer.
  int32_t observe(const BoundaryCall& call);

 private:
  struct Module {
    TavroRTC::FDModule::ModuleCallback callback = nullptr;
    SharedLibrary library;
    std::string path;
    std::set<TavroRTC::FDModule::FDWrapper*> instances;
    int32_t reservations = 0;
    bool ready = false;  ///< false while its initialisers run and once its unloading has begun
  };

  std::recursive_mutex loadLock_;
  std::mutex mutex_;  ///< guards all below
  std::map<std::string, Module, std::less<>> modules_;
  /// Name to the file that holds the code.
  std::map<std::string, std::string, std::less<>> watched_;
  std::shared_ptr<const BoundaryObserver> observer_;
};

}  // namespace tavro::host
