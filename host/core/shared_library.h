#pragma once

// A dynamic library of the platform, open as long as the object lives. All that differs between
// dlopen and LoadLibrary stays in shared_library.cpp.

#include <string>

namespace tavro::host {

class SharedLibrary {
 public:
  SharedLibrary() = default;
  SharedLibrary(SharedLibrary&& other) noexcept;
  SharedLibrary& operator=(SharedLibrary&& other) noexcept;
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;
  ~SharedLibrary() { close(); }

  /// Opens the file at `path`, which is never searched for elsewhere. All its symbols are resolved
  /// now, so that a missing one is an error here and not a crash later. Empty, or what is wrong.
  std::string open(const std::string& path);
  void close();
  /// Leaves the file open for the rest of the process.
  void abandon() { handle_ = nullptr; }

  /// The platform's handle: equal for two objects that hold the same file.
  void* handle() const { return handle_; }

  /// True if the code at `address` is part of this library.
  bool holds(const void* address) const;

  /// File that holds the code at `address`, or empty.
  static std::string fileOf(const void* address);

 private:
  void* handle_ = nullptr;
};

}  // namespace tavro::host
