#pragma once

// Turns 4:2:0 planes into packed pixels of three or four bytes. Chroma is replicated: pixel j of
// row i takes sample j / 2 of chroma row i / 2. Block and plain rows give the same bytes.

#include "image/yuv_table.h"

namespace TavroRTC::FDModule {

/// Strides are in bytes. The chroma planes have (width + 1) / 2 samples in each of (height + 1) / 2
/// rows. To get red first, give the planes V, U in place of U, V and yuvTableRgb. -1, with nothing
/// written, for a missing plane, a size below 1 or an unknown pack mode.
int32_t convertI420ToPacked(const uint8_t* srcY, int32_t strideY, const uint8_t* srcU,
                            int32_t strideU, const uint8_t* srcV, int32_t strideV, uint8_t* dst,
                            int32_t dstStride, const YuvTable& constants, int32_t width,
                            int32_t height, PackMode packMode);

}  // namespace TavroRTC::FDModule
