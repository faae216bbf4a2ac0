#pragma once

// Conversions that move bytes and compute no colour: packed pixels of three and four bytes into
// each other, and 4:2:0 with three planes into the form with two, whose second plane holds both
// chroma samples in turn, and back. Strides are in bytes. All give 0, or -1 with nothing written
// for a missing plane or a size below 1.

#include "image/color_row_kernels.h"

namespace TavroRTC::FDModule {

int32_t convertPacked(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                      int32_t width, int32_t height, PackedOp op);

/// The chroma pairs are U, V in this order; exchange the two planes for V, U.
int32_t convertI420ToNv(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                        int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV, uint8_t* dstY,
                        int32_t dstStrideY, uint8_t* dstChroma, int32_t dstStrideChroma,
                        int32_t width, int32_t height);

int32_t convertNvToI420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcChroma,
                        int32_t srcStrideChroma, uint8_t* dstY, int32_t dstStrideY, uint8_t* dstU,
                        int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV, int32_t width,
                        int32_t height);

}  // namespace TavroRTC::FDModule
