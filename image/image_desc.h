#pragma once

// The image subsystem: scales frames and converts their colour, in fixed point on 8-bit samples.
//
// A caller describes its planes in an ImageDesc and calls one of the dispatchers of
// image_dispatch.h. They look the format or the operation up in a table and hand plain pointers,
// strides and sizes to a scaler (scaler.h) or a converter (color_conversion.h). Those walk the
// rows, the scalers with what they share in scale_passes.h; the samples of a row are the work of a
// row kernel, a function pointer that is taken from the choosers of row_kernels.h once per plane. A
// kernel family has a readable plain form (*_plain.cpp), mostly a block form in SSSE3 (*_ssse3.cpp)
// and sometimes a twin of it in AVX2 (*_avx2.cpp), with the same bytes. row_tails.h finishes the
// rows that are not a whole number of blocks.
//
// Status results are 0, or -1 for refused arguments. Nothing is kept between calls.

#include <cstdint>

namespace TavroRTC::FDModule {

/// How many planes an image has and how many bytes a pixel of each; the order of the bytes of a
/// packed pixel makes no difference to scaling.
enum class ImageFormat : int32_t {
  Packed32 = 0,  ///< 4 bytes per pixel, like the next three
  Packed32Second = 1,
  Packed32Third = 2,
  Packed32Fourth = 3,
  Packed24 = 4,  ///< 3 bytes per pixel
  Bgr24 = 5,     ///< 3 bytes per pixel: the network's input
  I420 = 6,      ///< planes Y, U, V in 4:2:0 sampling; a chroma plane has (n + 1) / 2 samples for n
  Gray8 = 9,     ///< one plane
};

enum class ScaleFilter : int32_t {
  Nearest = 0,   ///< point sampling in both directions
  Linear = 1,    ///< interpolates columns; rows only in planes whose width stays
  Bilinear = 2,  ///< interpolates columns and rows
};

/// The conversions, each named by the bytes of a pixel in ascending address order. A is the opaque
/// byte, 255 wherever a conversion writes it.
enum class ColorOp : int32_t {
  Packed24ToPacked32 = 0,
  Packed32ToPacked24 = 1,
  Packed24ToPacked32Swapped = 2,
  Bgr24ToLuma = 6,
  Rgb24ToLuma = 7,
  Bgra32ToLuma = 8,
  Rgba32ToLuma = 9,
  Rgb24ToI420 = 10,
  Bgr24ToI420 = 11,
  Rgba32ToI420 = 12,
  Bgra32ToI420 = 13,
  Argb32ToI420 = 14,
  Abgr32ToI420 = 15,
  I420ToBgr24 = 16,
  I420ToRgb24 = 17,
  I420ToBgra32 = 18,
  I420ToRgba32 = 19,
  I420ToAbgr32 = 20,
  I420ToArgb32 = 21,
  I420ToNv21 = 22,
  I420ToNv12 = 23,
  Nv12ToI420 = 24,
  Nv21ToI420 = 25,
};

/// One image, for the time of a call: the planes belong to the caller. Entries of planes that the
/// format doesn't use may hold anything. The size of the image is that of plane 0; the sizes of
/// the chroma planes follow from it and are not read.
struct ImageDesc {
  uint8_t* planes[3] = {};
  int32_t widths[3] = {};   ///< in pixels
  int32_t heights[3] = {};  ///< in rows
  int32_t strides[3] = {};  ///< bytes from the start of a row to the start of the next
  ImageFormat format = {};
};

/// How many chroma samples an image has where it has `size` pixels: half as many, rounded up.
constexpr int32_t chromaSize(int32_t size) {
  return size / 2 + size % 2;
}

/// A part of an image, in pixels of plane 0.
struct CropRect {
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;
};

}  // namespace TavroRTC::FDModule
