#include <windows.h>

#include <algorithm>

#include "tests/support/dynamic_library.h"

namespace tavro::test {

const int runtimeInitialisers = 2;

void* openLibrary(const std::string& path) {
  return LoadLibraryA(path.c_str());
}

void closeLibrary(void* handle) {
  FreeLibrary(static_cast<HMODULE>(handle));
}

bool isLibraryOpen(const std::string& path) {
  return GetModuleHandleA(path.substr(path.find_last_of("/\\") + 1).c_str()) != nullptr;
}

std::string libraryFileAt(const void* code) {
  HMODULE library = nullptr;
  char file[MAX_PATH] = "";
  if (GetModuleHandleExA(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          static_cast<const char*>(code), &library))
    GetModuleFileNameA(library, file, MAX_PATH);
  return file;
}

/// The list has no name outside of the file, but it is the one place that holds the address of an
/// initialiser. It stands between -1 and 0, and is run from its end.
std::vector<Initialiser> initialisersOf(void* handle, Initialiser known) {
  const auto* base = static_cast<const uint8_t*>(handle);
  const auto* header = reinterpret_cast<const IMAGE_NT_HEADERS*>(
      base + static_cast<const IMAGE_DOS_HEADER*>(handle)->e_lfanew);
  const auto* words = static_cast<const Initialiser*>(handle);
  const auto* end = words + header->OptionalHeader.SizeOfImage / sizeof(Initialiser);
  const auto* first = std::find(words, end, known);
  if (first == end)
    return {};
  const auto* last = first;
  while (reinterpret_cast<intptr_t>(first[-1]) != -1)
    --first;
  while (*last != nullptr)
    ++last;
  std::vector<Initialiser> functions(first, last);
  std::reverse(functions.begin(), functions.end());
  return functions;
}

void runInitialiser(Initialiser function) {
  reinterpret_cast<void (*)()>(const_cast<void*>(function))();
}

}  // namespace tavro::test
