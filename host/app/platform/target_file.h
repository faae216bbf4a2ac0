#pragma once

// A file that the application makes.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "host/app/platform/process.h"

namespace tavro::host {

/// Opened, filled and closed. What fails leaves the system's words in `error`.
class TargetFile {
 public:
  /// An older file of that name is replaced. Empty if it fails.
  static std::optional<TargetFile> open(const std::string& path, std::string& error) {
    StreamHandle stream(openFile(path, "wb"));
    if (!succeeded(stream != nullptr, error))
      return std::nullopt;
    return TargetFile(std::move(stream));
  }

  bool put(const void* bytes, size_t size, std::string& error) {
    return succeeded(std::fwrite(bytes, 1, size, stream_.get()) == size, error);
  }

  /// Bytes that are still buffered may only fail here.
  bool close(std::string& error) { return succeeded(std::fclose(stream_.release()) == 0, error); }

 private:
  explicit TargetFile(StreamHandle stream) : stream_(std::move(stream)) {}

  static bool succeeded(bool done, std::string& error) {
    if (!done)
      error = std::strerror(errno);
    return done;
  }

  StreamHandle stream_;
};

}  // namespace tavro::host
