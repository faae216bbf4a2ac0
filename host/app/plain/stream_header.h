#pragma once

// The header of a Y4M stream, and the options that stand for one where raw samples have none.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/app/video_input.h"

namespace tavro::host {

struct StreamHeader {
  int32_t width = 0;
  int32_t height = 0;
  FrameRate frameRate = {};
};

/// Reads a stream's first line, without its line ending. Nothing if it isn't 8-bit 4:2:0 video in
/// limited range, with the reason in `error`.
std::optional<StreamHeader> parseY4mHeader(std::string_view line, std::string& error);

/// Reads the options of raw samples: video_size=WxH, framerate=N or N/M, pixel_format=yuv420p.
std::optional<StreamHeader> parseRawOptions(
    const std::vector<std::pair<std::string, std::string>>& options, std::string& error);

}  // namespace tavro::host
