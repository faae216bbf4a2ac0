#pragma once

// The front door of the image subsystem: three functions over ImageDesc that look up what to do and
// call the scaler or the converter that does it. All return 0 for success, also where a code names
// nothing to do, and -1 where the arguments are refused or there is no memory for a work row.
// Refused arguments leave the destination as it was.

#include "image/image_desc.h"

namespace TavroRTC::FDModule {

/// Scales `src` to the size of `dst`. The source's format decides what is done, and `dst` must have
/// the same layout; its format is not read.
int32_t scaleImage(const ImageDesc& src, const ImageDesc& dst, ScaleFilter filter);

/// The same for a part of `src`. An odd origin of an i420 image takes the chroma sample to the
/// right of and below the one that covers it; at the right and lower edge, where there is none,
/// the last one stands in. A rectangle that isn't inside the image is refused.
int32_t cropAndScaleImage(const ImageDesc& src, const ImageDesc& dst, const CropRect& rect,
                          ScaleFilter filter);

/// Converts at the size of `src`. The operation alone decides which planes are read and written;
/// the formats and the size of `dst` are not read.
int32_t convertImage(const ImageDesc& src, const ImageDesc& dst, ColorOp op);

}  // namespace TavroRTC::FDModule
