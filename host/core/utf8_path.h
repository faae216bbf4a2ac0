#pragma once

// File names are UTF-8 in this program's strings, also where the platform's narrow strings aren't.

#include <filesystem>
#include <string>
#include <system_error>

namespace tavro::host {

inline std::filesystem::path pathFromUtf8(const std::string& name) {
  return {std::u8string(name.begin(), name.end())};
}

inline std::string utf8FromPath(const std::filesystem::path& path) {
  const std::u8string name = path.u8string();
  return {name.begin(), name.end()};
}

/// Where a name leads, whether there is a file or not: absolute, and without links.
inline std::filesystem::path placeOf(const std::string& name) {
  std::error_code failure;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(pathFromUtf8(name), failure),
                                           failure);
}

}  // namespace tavro::host
