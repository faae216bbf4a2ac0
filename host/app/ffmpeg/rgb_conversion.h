#pragma once

#include "host/app/ffmpeg/ffmpeg_handles.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

/// The frame as packed RGB24, by its own matrix (as of VideoInput). Null for want of memory.
FrameHandle toRgb(const I420Frame& frame, int32_t colorMatrix);

}  // namespace tavro::host
