#pragma once

// What a build can read and write. One with FFmpeg's libraries takes the files that are named
// ffmpeg_*, one without takes those named plain_*: here, VideoInput::open of input/ and
// openVideoSink of output/.

#include <cstdint>
#include <string>
#include <vector>

#include "host/core/i420_frame.h"

namespace tavro::host {

/// Called once, before anything else that has to do with media.
void prepareMedia();

/// What the user is told about them.
struct MediaHelp {
  const char* input;        ///< of the argument INPUT
  const char* inputFormat;  ///< of --input-format
  const char* inputOption;  ///< of --input-option
  const char* annotate;     ///< of --annotate
  const char* examples;     ///< lines of at most 100 columns, each with its line ending
  const char* conversion;   ///< which video reaches the detector in which form
};
MediaHelp mediaHelp();

/// The endings of names that --annotate takes.
std::vector<std::string> annotationExtensions();

/// The endings of names by which a video is known in a folder, in lower case.
std::vector<std::string> videoExtensions();

/// The bytes of a JPEG file; empty if it fails. `colorMatrix` is that of VideoInput.
std::vector<uint8_t> encodeJpeg(const I420Frame& frame, int32_t colorMatrix);

/// The bytes of a PNG file; empty if it fails. `colorMatrix` is that of VideoInput.
std::vector<uint8_t> encodePng(const I420Frame& frame, int32_t colorMatrix);

}  // namespace tavro::host
