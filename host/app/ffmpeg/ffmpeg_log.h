#pragma once

// FFmpeg's libraries log to the standard error in their own style. This application speaks there in
// its own words: the libraries' errors are counted and the latest kept, all else is dropped.

#include <cstdint>
#include <string>

namespace tavro::host {

/// From here on nothing of FFmpeg's reaches the standard error.
void captureFfmpegLog();

/// Errors logged so far by any thread.
int64_t ffmpegErrorCount();

/// The latest error logged, as one line; empty if there is none.
std::string latestFfmpegError();

/// The text of FFmpeg's error code, with the latest error logged if there is one since
/// `errorsBefore`, a count of ffmpegErrorCount().
std::string explainedError(int code, int64_t errorsBefore);

}  // namespace tavro::host
