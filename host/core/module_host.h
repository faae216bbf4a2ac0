#pragma once

// libtavro-core for applications. A module is a dynamic library that registers a callback under a
// name while it is being loaded (the qosl_* functions of host_interface.h are the other face of
// this library). loadModule() opens the file and keeps it only if it has registered itself;
// createInstance() and destroyInstance() go through the callback, and unloadModule() closes the
// file again once no instance is left.
//
// All functions may be called from any thread. Failures are values: a Status never throws, and
// a lack of memory is one of its messages. findModule() and modules() may throw std::bad_alloc.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "modules/face_detection/host_interface.h"

namespace TavroRTC::FDModule {
class FDWrapper;
}

namespace tavro::host {

/// Outcome of an operation. A failure carries one line for the user, without a line ending.
struct [[nodiscard]] Status {
  std::string error;  ///< empty on success
  bool ok() const { return error.empty(); }
};

struct ModuleInfo {
  std::string name;           ///< as registered by the module
  std::string path;           ///< file it was loaded from; empty if it came in another way
  bool watched = false;       ///< the module's qosl_so_register succeeded
  int32_t liveInstances = 0;  ///< made and not yet destroyed
};

/// Finds the detector's module that belongs to this library, beside it or in the same build tree,
/// and stores the name of its file, in UTF-8. The failure names the folders that it isn't in.
TAVRO_HOST_API Status findDetector(std::string& path);

/// The file of the module for nearly square windows that lies beside the module in `path`: the same
/// name with "_square" before its extension. Empty if there is none. May throw std::bad_alloc.
TAVRO_HOST_API std::string squareDetectorBeside(const std::string& path);

/// Loads the module in `path`, a name in UTF-8, and stores its registered name in `name` unless
/// that is null. Refused, with the file closed again: a file that can't be opened, that doesn't
/// register itself, whose registration was refused, or that is loaded already. Of a file that
/// registers several names, the first counts and the others are refused.
TAVRO_HOST_API Status loadModule(const std::string& path, std::string* name = nullptr);

/// Closes a module's file. Refused while one of its instances is alive; the module then stays as
/// it was.
TAVRO_HOST_API Status unloadModule(const std::string& name);

TAVRO_HOST_API std::optional<ModuleInfo> findModule(const std::string& name);
TAVRO_HOST_API std::vector<ModuleInfo> modules();

/// Makes an instance with the module's callback. The module owns its memory: it goes back through
/// destroyInstance(), never through delete. `*instance` is null if it fails. A null `instance` is
/// refused.
TAVRO_HOST_API Status createInstance(const std::string& name,
                                     TavroRTC::FDModule::FDWrapper** instance);

/// Destroys an instance that createInstance() made. An unknown pointer, null or a pointer
/// destroyed before is refused.
TAVRO_HOST_API Status destroyInstance(TavroRTC::FDModule::FDWrapper* instance);

/// One call that a module makes on this library.
struct BoundaryCall {
  enum class Kind { watch, add, remove, print };
  Kind kind = Kind::print;
  const char* name = nullptr;         ///< as given by the module, possibly null; not for print
  const void* codeAddress = nullptr;  ///< watch only
  TavroRTC::FDModule::ModuleCallback callback = nullptr;  ///< add only
  const char* text = nullptr;                             ///< print only: the formatted text
};

/// Called for every BoundaryCall on the module's thread, before the call takes effect and with no
/// lock held. A negative result becomes the module's result, and the call has no effect.
using BoundaryObserver = std::function<int32_t(const BoundaryCall&)>;

/// Sets the one observer of this process; an empty function removes it.
TAVRO_HOST_API Status setBoundaryObserver(BoundaryObserver observer);

}  // namespace tavro::host
