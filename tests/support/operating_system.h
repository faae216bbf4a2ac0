#pragma once

// What the tests ask of the operating system: pages of memory that can't be touched, and whether a
// library is open (this needs tavro_test_platform).

#include <cstddef>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#undef far  // words of a memory model long gone
#undef near
#else
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace tavro::test {

inline size_t pageSize() {
#if defined(_WIN32)
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
#else
  return static_cast<size_t>(sysconf(_SC_PAGESIZE));
#endif
}

/// Pages that can neither be read nor written; null if there are none.
inline void* reservePages(size_t bytes) {
#if defined(_WIN32)
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_NOACCESS);
#else
  void* first = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return first != MAP_FAILED ? first : nullptr;
#endif
}

inline bool openPages(void* first, size_t bytes) {
#if defined(_WIN32)
  return VirtualAlloc(first, bytes, MEM_COMMIT, PAGE_READWRITE) != nullptr;
#else
  return mprotect(first, bytes, PROT_READ | PROT_WRITE) == 0;
#endif
}

inline void releasePages(void* first, [[maybe_unused]] size_t bytes) {
#if defined(_WIN32)
  VirtualFree(first, 0, MEM_RELEASE);
#else
  munmap(first, bytes);
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
