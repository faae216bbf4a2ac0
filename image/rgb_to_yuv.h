#pragma once

// Packed pixels to luma alone or to three planes in 4:2:0. Strides are in bytes; chroma planes have
// (width + 1) / 2 samples in each of (height + 1) / 2 rows. All give 0, or -1 with nothing written
// for a missing plane or a size below 1.

#include "image/color_row_kernels.h"

namespace TavroRTC::FDModule {

/// The rows of a whole image go through `convertRow`.
int32_t convertToLuma(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      int32_t width, int32_t height, LumaRow* convertRow);

int32_t convertToI420(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                      int32_t width, int32_t height, const PixelLayout& layout);

}  // namespace TavroRTC::FDModule
