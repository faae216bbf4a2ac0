#include "host/core/shared_library.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "host/core/utf8_path.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <link.h>
#endif

namespace tavro::host {

namespace {

#if defined(_WIN32)

void* openFile(const std::filesystem::path& path, std::string& error) {
  HMODULE module = LoadLibraryW(path.c_str());
  if (module == nullptr)
    error = std::system_category().message(static_cast<int>(GetLastError()));
  return module;
}

void closeFile(void* handle) {
  FreeLibrary(static_cast<HMODULE>(handle));
}

HMODULE moduleAt(const void* address) {
  HMODULE module = nullptr;
  const bool found = GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      static_cast<const wchar_t*>(address), &module);
  return found ? module : nullptr;
}

#else

void* openFile(const std::filesystem::path& path, std::string& error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* message = dlerror();
    error = message != nullptr ? message : "unknown error of the loader";
    // The loader puts the path first; the caller names the file in its own way.
    const std::string prefix = path.string() + ": ";
    if (error.starts_with(prefix))
      error.erase(0, prefix.size());
  }
  return handle;
}

void closeFile(void* handle) {
  dlclose(handle);
}

#endif

}  // namespace

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)) {}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
  std::swap(handle_, other.handle_);
  return *this;
}

std::string SharedLibrary::open(const std::string& path) {
  close();
  std::error_code failure;
  // A bare file name would send the loader through its search path.
  const std::filesystem::path file = std::filesystem::absolute(pathFromUtf8(path), failure);
  if (path.empty() || failure || !std::filesystem::exists(file, failure))
    return "no such file";
  if (std::filesystem::is_directory(file, failure))
    return "is a directory";
  std::string error;
  handle_ = openFile(file, error);
  return error;
}

void SharedLibrary::close() {
  if (void* handle = std::exchange(handle_, nullptr))
    closeFile(handle);
}

bool SharedLibrary::holds(const void* address) const {
  if (handle_ == nullptr)
    return false;
#if defined(_WIN32)
  return moduleAt(address) == handle_;
#else
  const link_map* library = nullptr;
  if (dlinfo(handle_, RTLD_DI_LINKMAP, static_cast<void*>(&library)) != 0 || library == nullptr)
    return false;
  return fileOf(address) == library->l_name;
#endif
}

std::string SharedLibrary::fileOf(const void* address) {
#if defined(_WIN32)
  HMODULE module = moduleAt(address);
  wchar_t file[MAX_PATH] = {};
  if (module == nullptr || GetModuleFileNameW(module, file, MAX_PATH) == 0)
    return {};
  return utf8FromPath(file);
#else
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr)
    return {};
  return info.dli_fname;
#endif
}

}  // namespace tavro::host
