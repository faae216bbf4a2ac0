#pragma once

// libtavro-core for hosts of any compiler and language: what module_host.h offers, as C functions.
// A host that was built with another compiler or another C++ runtime than the library uses these.
//
// All may be called from any thread. Names of files are in UTF-8.

#include <cstdint>

#include "modules/face_detection/loader.h"

namespace TavroRTC::FDModule {
class FDWrapper;
}

extern "C" {
/// Loads the module in `path` and writes the name that it has registered, with its final zero, to
/// the `size` bytes at `name`; a null `name` is allowed. 0, or -1 with a reason in
/// tavro_host_error(): for a file that is no module, one that is loaded already, and a name that
/// doesn't fit.
TAVRO_HOST_API int32_t tavro_host_load(const char* path, char* name, int32_t size);

/// Closes a module's file. 0, or -1 while one of its instances is alive.
TAVRO_HOST_API int32_t tavro_host_unload(const char* name);

/// Makes an instance, which belongs to the module and goes back through tavro_host_destroy(). Null
/// if it fails.
TAVRO_HOST_API TavroRTC::FDModule::FDWrapper* tavro_host_create(const char* name);

/// Destroys an instance. 0, or -1 for a pointer that isn't one.
TAVRO_HOST_API int32_t tavro_host_destroy(TavroRTC::FDModule::FDWrapper* instance);

/// One line about the latest failure of these functions on this thread; good until the next call.
TAVRO_HOST_API const char* tavro_host_error();
}
