#pragma once

// What plain_media.cpp has for plain_input.cpp beside media.h.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// The picture in a PNG file's bytes, in limited-range BT.601. Empty if it fails, with the reason
/// in `error`.
std::optional<I420Frame> decodePng(const std::vector<uint8_t>& file, std::string& error);

}  // namespace tavro::host
