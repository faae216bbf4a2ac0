#pragma once

// File names are UTF-8 in this program's strings, also where the platform's narrow strings aren't.

#include <filesystem>
#include <string>

namespace tavro::host {

inline std::filesystem::path pathFromUtf8(const std::string& name) {
  return {std::u8string(name.begin(), name.end())};
}

inline std::string utf8FromPath(const std::filesystem::path& path) {
  const std::u8string name = path.u8string();
  return {name.begin(), name.end()};
}

}  // namespace tavro::host
