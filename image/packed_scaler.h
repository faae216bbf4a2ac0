#pragma once

// Resizes images of three or four bytes per pixel; the bytes of a pixel are channels that don't
// mix. As for planes there are six ways (copy, rows only, halving, point sampling, reduction,
// enlargement), but the steps of the two directions choose among them: an image whose sides both
// shrink by odd whole numbers has a pixel in the middle of every box and is point sampled, and
// halved columns go with any even number of rows. Reduction and enlargement are those of planes.

#include "image/image_desc.h"

namespace TavroRTC::FDModule {

inline constexpr int32_t largestPackedSourceSize = 32767;

/// Widths count pixels, strides bytes; source and destination must not overlap. -1 for a missing
/// image, a size below 1, a source size above largestPackedSourceSize, a destination row of more
/// bytes than an int32 counts, an unknown filter and other than 3 or 4 bytes per pixel, all with
/// nothing written, and if there is no memory for a work row.
int32_t scalePacked(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                    uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                    int32_t bytesPerPixel, ScaleFilter filter);

}  // namespace TavroRTC::FDModule
