// The plain forms for colours and layouts, pixel by pixel.

#include <algorithm>

#include "image/row_forms.h"

namespace TavroRTC::FDModule::plain {
namespace {

uint8_t clampToByte(int32_t value) {
  return static_cast<uint8_t>(std::clamp(value, 0, 255));
}

template <int32_t bytesPerPixel, int32_t firstColour>
void yuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
            const YuvTable& constants, int32_t width) {
  for (int32_t i = 0; i < width; ++i, dst += bytesPerPixel) {
    const int32_t y1 = y[i] * constants.yGain[0] * 257 >> 16;
    const auto colour = [&](const int8_t* pair, const int16_t* bias) {
      return clampToByte((bias[0] - (pair[0] * u[i / 2] + pair[1] * v[i / 2]) + y1) >> 6);
    };
    if constexpr (bytesPerPixel == 4)
      dst[firstColour == 0 ? 3 : 0] = 255;
    dst[firstColour] = colour(constants.first, constants.firstBias);
    dst[firstColour + 1] = colour(constants.second, constants.secondBias);
    dst[firstColour + 2] = colour(constants.third, constants.thirdBias);
  }
}

struct Colour {
  int32_t red, green, blue;
};

constexpr int32_t rounding = 0x8080;  // half a unit, and 128 to centre chroma

uint8_t lumaOf(const Colour& c) {
  return static_cast<uint8_t>((66 * c.red + 129 * c.green + 25 * c.blue + 0x1080) >> 8);
}
uint8_t blueDifferenceOf(const Colour& c) {
  return static_cast<uint8_t>((112 * c.blue - 74 * c.green - 38 * c.red + rounding) >> 8);
}
uint8_t redDifferenceOf(const Colour& c) {
  return static_cast<uint8_t>((112 * c.red - 94 * c.green - 18 * c.blue + rounding) >> 8);
}

template <PixelLayout layout>
Colour colourAt(const uint8_t* pixel) {
  return {pixel[layout.red], pixel[layout.green], pixel[layout.blue]};
}

Colour operator+(const Colour& a, const Colour& b) {
  return {a.red + b.red, a.green + b.green, a.blue + b.blue};
}
Colour operator>>(const Colour& c, int32_t bits) {
  return {c.red >> bits, c.green >> bits, c.blue >> bits};
}

}  // namespace

void yuvRowFourBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                     const YuvTable& constants, int32_t width) {
  yuvRow<4, 0>(y, u, v, dst, constants, width);
}

void yuvRowOpaqueFirst(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                       const YuvTable& constants, int32_t width) {
  yuvRow<4, 1>(y, u, v, dst, constants, width);
}

void yuvRowThreeBytes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                      const YuvTable& constants, int32_t width) {
  yuvRow<3, 0>(y, u, v, dst, constants, width);
}

template <PixelLayout layout>
void lumaRow(const uint8_t* src, uint8_t* dstY, int32_t width) {
  for (int32_t i = 0; i < width; ++i, src += layout.bytesPerPixel)
    *dstY++ = lumaOf(colourAt<layout>(src));
}

template <PixelLayout layout>
void chromaRow(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
               int32_t width) {
  constexpr int32_t step = layout.bytesPerPixel;
  for (int32_t rest = width; rest > 0; rest -= 2, src += ptrdiff_t{2} * step) {
    const Colour left = colourAt<layout>(src) + colourAt<layout>(src + srcStride);
    const bool isPair = rest > 1;
    const Colour mean =
        isPair
            ? (left + colourAt<layout>(src + step) + colourAt<layout>(src + srcStride + step)) >> 2
            : left >> 1;
    *dstU++ = blueDifferenceOf(mean);
    *dstV++ = redDifferenceOf(mean);
  }
}

template <PackedOp op>
void packedRow(const uint8_t* src, uint8_t* dst, int32_t width) {
  constexpr uint8_t opaque = 255;
  constexpr int32_t srcStep = op == PackedOp::dropLast ? 4 : 3;
  constexpr int32_t first = op == PackedOp::addOpaqueSwapped ? 2 : 0;
  for (int32_t i = 0; i < width; ++i, src += srcStep) {
    *dst++ = src[first];
    *dst++ = src[1];
    *dst++ = src[2 - first];
    if constexpr (op != PackedOp::dropLast)
      *dst++ = opaque;
  }
}

void mergeChromaRow(const uint8_t* first, const uint8_t* second, uint8_t* dst, int32_t width) {
  for (int32_t i = 0; i < width; ++i) {
    *dst++ = first[i];
    *dst++ = second[i];
  }
}

void splitChromaRow(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width) {
  for (int32_t i = 0; i < width; ++i) {
    first[i] = *src++;
    second[i] = *src++;
  }
}

template LumaKernel lumaRow<rgb24>;
template LumaKernel lumaRow<bgr24>;
template LumaKernel lumaRow<rgba32>;
template LumaKernel lumaRow<bgra32>;
template LumaKernel lumaRow<argb32>;
template LumaKernel lumaRow<abgr32>;
template ChromaKernel chromaRow<rgb24>;
template ChromaKernel chromaRow<bgr24>;
template ChromaKernel chromaRow<rgba32>;
template ChromaKernel chromaRow<bgra32>;
template ChromaKernel chromaRow<argb32>;
template ChromaKernel chromaRow<abgr32>;
template PackedKernel packedRow<PackedOp::addOpaque>;
template PackedKernel packedRow<PackedOp::dropLast>;
template PackedKernel packedRow<PackedOp::addOpaqueSwapped>;

}  // namespace TavroRTC::FDModule::plain
