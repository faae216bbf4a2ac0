#pragma once

// The platform's loader, for tests that look at a library from beside the host. Needs
// tavro_test_platform.

#include <string>

#if defined(_WIN32)
#include <windows.h>
#undef far  // words of a memory model long gone
#undef near
#else
#include <dlfcn.h>
#endif

namespace tavro::test {

/// Opens the file as a host would, without the host's knowledge; null if that fails.
inline void* openLibrary(const std::string& path) {
#if defined(_WIN32)
  return LoadLibraryA(path.c_str());
#else
  return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
#endif
}

inline void closeLibrary(void* handle) {
#if defined(_WIN32)
  FreeLibrary(static_cast<HMODULE>(handle));
#else
  dlclose(handle);
#endif
}

/// Whether the file is in memory.
inline bool isLibraryOpen(const std::string& path) {
#if defined(_WIN32)
  return GetModuleHandleA(path.substr(path.find_last_of("/\\") + 1).c_str()) != nullptr;
#else
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr)
    dlclose(handle);
  return handle != nullptr;
#endif
}

}  // namespace tavro::test
