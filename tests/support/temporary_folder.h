#pragma once

// Files of a test, in a folder that nobody else uses, and what is in them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "host/core/utf8_path.h"

namespace tavro::test {

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::random_device chance;
    do
      path_ = std::filesystem::path(testing::TempDir()) / ("tavro-fd-" + std::to_string(chance()));
    while (!std::filesystem::create_directory(path_));
  }
  ~TemporaryFolder() {
    std::error_code failure;
    std::filesystem::remove_all(path_, failure);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// The name of a file in the folder, in UTF-8.
  std::string file(const std::string& name) const {
    return host::utf8FromPath(path_ / host::pathFromUtf8(name));
  }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(host::pathFromUtf8(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(host::pathFromUtf8(path), std::ios::binary) << content;
}

}  // namespace tavro::test
