#pragma once

// A file that the application makes.

#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "host/app/process.h"

namespace tavro::host {

/// Opened, filled and closed. What fails leaves the system's words in `error`.
class TargetFile {
 public:
  /// An older file of that name is replaced. Nothing on failure.
  static std::optional<TargetFile> open(const std::string& path, std::string& error);

  bool put(const void* bytes, size_t size, std::string& error);

  /// What is still on its way may only fail here.
  bool close(std::string& error);

 private:
  explicit TargetFile(StreamHandle stream) : stream_(std::move(stream)) {}

  StreamHandle stream_;
};

}  // namespace tavro::host
