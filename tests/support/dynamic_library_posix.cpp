#include <dlfcn.h>
#include <link.h>

#include <cstring>

#include "tests/support/dynamic_library.h"

namespace tavro::test {

const int runtimeInitialisers = 1;

void* openLibrary(const std::string& path) {
  return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void closeLibrary(void* handle) {
  dlclose(handle);
}

bool isLibraryOpen(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr)
    dlclose(handle);
  return handle != nullptr;
}

std::string libraryFileAt(const void* code) {
  Dl_info info = {};
  return dladdr(code, &info) != 0 ? info.dli_fname : "";
}

std::vector<Initialiser> initialisersOf(void* handle, Initialiser /*known*/) {
  link_map* map = nullptr;
  dlinfo(handle, RTLD_DI_LINKMAP, static_cast<void*>(&map));
  ElfW(Addr) start = 0;
  size_t bytes = 0;
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_INIT_ARRAY)
      start = map->l_addr + entry->d_un.d_ptr;
    if (entry->d_tag == DT_INIT_ARRAYSZ)
      bytes = entry->d_un.d_val;
  }
  std::vector<Initialiser> functions(bytes / sizeof(Initialiser));
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader states addresses as numbers
  std::memcpy(functions.data(), reinterpret_cast<const void*>(start), bytes);
  return functions;
}

void runInitialiser(Initialiser function) {
  reinterpret_cast<void (*)(int, char**, char**)>(const_cast<void*>(function))(0, nullptr, nullptr);
}

}  // namespace tavro::test
