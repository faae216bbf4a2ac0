#pragma once

// Whole files as bytes, and the standard streams in their place.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavro::host::image {

/// The name that stands for the standard input or output.
inline constexpr const char* standardStream = "-";

/// What is in the file, and no more than the first `limit` bytes. Nothing on failure, with the
/// reason in `error`.
std::optional<std::vector<uint8_t>> readBytes(const std::string& path, int64_t limit,
                                              std::string& error);

/// False on failure, with the reason in `error`.
bool writeBytes(const std::string& path, std::span<const uint8_t> bytes, std::string& error);

}  // namespace tavro::host::image
