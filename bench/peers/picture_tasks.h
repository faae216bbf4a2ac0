#pragma once

// What other libraries have for the operations of the image code: each gives a task on buffers of
// its own, of one picture size, that does the operation once a run. Empty where the library has
// nothing like it, or isn't there.

#include <functional>

#include "bench/scenes.h"
#include "image/image_desc.h"

namespace tavro::bench {

using PictureTask = std::function<void()>;

PictureTask openCvConversion(TavroRTC::FDModule::ColorOp op, FrameSize size);
PictureTask swscaleConversion(TavroRTC::FDModule::ColorOp op, FrameSize size);

/// Bilinear, of packed pixels.
PictureTask openCvScale(int32_t bytesPerPixel, FrameSize from, FrameSize to);
PictureTask swscaleScale(int32_t bytesPerPixel, FrameSize from, FrameSize to);

}  // namespace tavro::bench
