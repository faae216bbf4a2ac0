#pragma once

// Conversions of whole images, row by row: from and to the three planes of 4:2:0, and between
// layouts that hold the same colours. Strides are in bytes; chroma planes have (width + 1) / 2
// samples in each of (height + 1) / 2 rows. All return 0, or -1 with nothing written for a missing
// plane, a size below 1 or an operation that has no kernel.

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {

/// 4:2:0 to packed pixels of three or four bytes. Chroma is replicated: pixel j of row i takes
/// sample j / 2 of chroma row i / 2. To get red first, give the planes V, U in place of U, V and
/// YuvTableRgb.
int32_t convertI420ToPacked(const uint8_t* srcY, int32_t strideY, const uint8_t* srcU,
                            int32_t strideU, const uint8_t* srcV, int32_t strideV, uint8_t* dst,
                            int32_t dstStride, const YuvTable& constants, int32_t width,
                            int32_t height, PackMode packMode);

/// Packed pixels to luma: each row goes through `convertRow`.
int32_t convertToLuma(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      int32_t width, int32_t height, LumaKernel* convertRow);

/// Packed pixels to 4:2:0.
int32_t convertToI420(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                      int32_t width, int32_t height, const PixelLayout& layout);

/// Packed pixels of three and four bytes into each other.
int32_t convertPacked(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                      int32_t width, int32_t height, PackedOp op);

/// 4:2:0 with three planes into the form with two, whose second plane holds both chroma samples in
/// turn, and back. The pairs are U, V in this order; exchange the two planes for V, U.
int32_t convertI420ToNv(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                        int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV, uint8_t* dstY,
                        int32_t dstStrideY, uint8_t* dstChroma, int32_t dstStrideChroma,
                        int32_t width, int32_t height);

int32_t convertNvToI420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcChroma,
                        int32_t srcStrideChroma, uint8_t* dstY, int32_t dstStrideY, uint8_t* dstU,
                        int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV, int32_t width,
                        int32_t height);

}  // namespace TavroRTC::FDModule
