#pragma once

// Pages of memory that a program can be kept away from. All that differs between the platforms
// about them stays here.

#include <cstddef>

#if defined(_WIN32)
#include <windows.h>
#undef far  // words of a memory model long gone
#undef near
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace tavro::test {

#if defined(_WIN32)

inline size_t pageSize() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
}

/// Pages that can neither be read nor written; null if there are none.
inline void* reservePages(size_t bytes) {
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE, PAGE_NOACCESS);
}

inline bool openPages(void* first, size_t bytes) {
  return VirtualAlloc(first, bytes, MEM_COMMIT, PAGE_READWRITE) != nullptr;
}

inline void releasePages(void* first, size_t /*bytes*/) {
  VirtualFree(first, 0, MEM_RELEASE);
}

#else

inline size_t pageSize() {
  return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/// Pages that can neither be read nor written; null if there are none.
inline void* reservePages(size_t bytes) {
  void* first = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return first != MAP_FAILED ? first : nullptr;
}

inline bool openPages(void* first, size_t bytes) {
  return mprotect(first, bytes, PROT_READ | PROT_WRITE) == 0;
}

inline void releasePages(void* first, size_t bytes) {
  munmap(first, bytes);
}

#endif

}  // namespace tavro::test
