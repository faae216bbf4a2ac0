#pragma once

// Resizes a plane of 8-bit samples, a 4:2:0 image as three planes, and an image of packed pixels.
// A plane takes the first that fits of six ways: copy, rows only, halving, point sampling,
// reduction (rows, then columns), enlargement (columns, then rows). Samples stay 8-bit numbers
// between the two passes, so the order is part of the result. Source samples are read only inside
// the plane's rows: a filter that looks past the edge sees the edge sample again.
//
// The bytes of a packed pixel, three or four, are channels that don't mix. There are the same six
// ways, but the steps of the two directions choose among them. An image whose sides both shrink by
// odd whole numbers has a pixel in the middle of every box and is point sampled. Halved columns go
// with any even number of rows. Reduction and enlargement are those of planes.
//
// Sizes count samples or pixels, strides bytes. Source and destination must not overlap.

#include "image/image_desc.h"

namespace TavroRTC::FDModule {

inline constexpr int32_t largestSourceSize = 32768;
inline constexpr int32_t largestPackedSourceSize = 32767;

/// Scales Y at the given sizes and U and V at half of them, rounded up. -1 for a missing plane, a
/// size below 1, a source size above largestSourceSize or an unknown filter, all with nothing
/// written, and if there is no memory for a work row.
int32_t scalePlanar420(const uint8_t* srcY, int32_t srcStrideY, const uint8_t* srcU,
                       int32_t srcStrideU, const uint8_t* srcV, int32_t srcStrideV,
                       int32_t srcWidth, int32_t srcHeight, uint8_t* dstY, int32_t dstStrideY,
                       uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                       int32_t dstWidth, int32_t dstHeight, ScaleFilter filter);

/// scalePlane behind the same refusals as scalePlanar420.
int32_t scaleSinglePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                         uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                         ScaleFilter filter);

/// Arguments are not tested: sizes are at least 1, source sizes at most largestSourceSize. False if
/// there is no memory for a work row; nothing is written then.
bool scalePlane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                ScaleFilter filter);

/// -1 for a missing image, a size below 1, a source size above largestPackedSourceSize, a
/// destination row of more bytes than an int32 counts, an unknown filter and other than 3 or 4
/// bytes per pixel, all with nothing written, and if there is no memory for a work row.
int32_t scalePacked(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight,
                    uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight,
                    int32_t bytesPerPixel, ScaleFilter filter);

/// Copies `height` rows of `widthBytes`. A plane may be copied onto itself.
void copyPlane(const uint8_t* src, int32_t srcStride, uint8_t* dst, int32_t dstStride,
               int32_t widthBytes, int32_t height);

/// Scales rows only, from the position x, y in steps of dy (16.16); columns stay as they are. Only
/// `Nearest` doesn't interpolate.
void scaleVertical(int32_t srcHeight, int32_t dstWidth, int32_t dstHeight, int32_t srcStride,
                   int32_t dstStride, const uint8_t* src, uint8_t* dst, int32_t x, int32_t y,
                   int32_t dy, int32_t bytesPerPixel, ScaleFilter filter);

}  // namespace TavroRTC::FDModule
