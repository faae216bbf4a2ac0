#pragma once

// What the foreign host and its core library have instead of a C++ library and the system's
// headers, which are made for another compiler. The build puts it in the place of <cstdint>,
// <memory> and <new>, which the boundary's headers include.

#include <stddef.h>
#include <stdint.h>

using Handle = void*;

extern "C" {
struct FILE;
FILE* fopen(const char* name, const char* mode);
size_t fread(void* bytes, size_t size, size_t count, FILE* file);
int fclose(FILE* file);
int printf(const char* format, ...);
int strcmp(const char* one, const char* other);
[[noreturn]] void exit(int code);

/// PROCESS_HEAP_ENTRY
struct HeapEntry {
  void* data;
  uint32_t bytes;
  uint8_t overhead;
  uint8_t region;
  uint16_t flags;
  void* rest[3];
};
inline constexpr uint16_t heapEntryBusy = 4;

__declspec(dllimport) Handle LoadLibraryA(const char* file);
__declspec(dllimport) int FreeLibrary(Handle library);
__declspec(dllimport) int GetModuleHandleExA(uint32_t flags, const char* address, Handle* library);
__declspec(dllimport) Handle HeapCreate(uint32_t options, size_t initialBytes, size_t mostBytes);
__declspec(dllimport) void* HeapAlloc(Handle heap, uint32_t flags, size_t bytes);
__declspec(dllimport) void* HeapReAlloc(Handle heap, uint32_t flags, void* block, size_t bytes);
__declspec(dllimport) int HeapFree(Handle heap, uint32_t flags, void* block);
__declspec(dllimport) int HeapValidate(Handle heap, uint32_t flags, const void* block);
__declspec(dllimport) int HeapWalk(Handle heap, HeapEntry* entry);
__declspec(dllimport) uint32_t GetProcessHeaps(uint32_t most, Handle* heaps);
}

namespace std {
/// Part of a class of the boundary, and never touched by hosts.
template <typename T>
class shared_ptr {
  T* object;
  void* block;
};
}  // namespace std

/// What the foreign core library has noted of a module.
struct ForeignNotes {
  char calls[8];  ///< s, m and u for so_register, module_register and module_unregister; or ?
  int32_t (*callback)(void* context, void* argument);
  const void* codeAddress;
};

#if defined(TAVRO_BUILDING_HOST_CORE)
#define FOREIGN_CORE_API __declspec(dllexport)
#else
#define FOREIGN_CORE_API __declspec(dllimport)
#endif
extern "C" FOREIGN_CORE_API ForeignNotes* foreignNotes();
