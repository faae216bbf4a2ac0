#pragma once

// Packed pixels: where the colours of a pixel stand among its bytes. The kernels that read them are
// generated from these descriptions (color_row_kernels_*.cpp); a new layout is one line here and a
// row in the tables that are to have it.

#include <cstdint>

namespace TavroRTC::FDModule {

struct PixelLayout {
  int32_t bytesPerPixel;
  int32_t red, green, blue;  ///< the byte of each

  friend constexpr bool operator==(const PixelLayout&, const PixelLayout&) = default;
};

inline constexpr PixelLayout rgb24 = {3, 0, 1, 2};
inline constexpr PixelLayout bgr24 = {3, 2, 1, 0};
inline constexpr PixelLayout rgba32 = {4, 0, 1, 2};
inline constexpr PixelLayout bgra32 = {4, 2, 1, 0};
inline constexpr PixelLayout argb32 = {4, 1, 2, 3};
inline constexpr PixelLayout abgr32 = {4, 3, 2, 1};

/// How packed pixels turn into packed pixels.
enum class PackedOp : int32_t {
  addOpaque,         ///< p0, p1, p2, 255
  dropLast,          ///< p0, p1, p2
  addOpaqueSwapped,  ///< p2, p1, p0, 255
};

}  // namespace TavroRTC::FDModule
