#pragma once

// Pictures in PNG files, as I420.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// The picture in a PNG file's bytes, in limited-range BT.601. Nothing on failure, with the reason
/// in `error`.
std::optional<I420Frame> decodePng(const std::vector<uint8_t>& file, std::string& error);

}  // namespace tavro::host
