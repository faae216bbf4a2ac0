#include "image/rgb_to_yuv.h"

namespace TavroRTC::FDModule {

int32_t convertToLuma(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      int32_t width, int32_t height, LumaRow* convertRow) {
  if (src == nullptr || dstY == nullptr || convertRow == nullptr || width < 1 || height < 1)
    return -1;
  for (ptrdiff_t y = 0; y < height; ++y)
    convertRow(src + y * srcStride, dstY + y * dstStrideY, width);
  return 0;
}

// Two rows share their chroma, and go through all kernels while they are in the cache; an odd last
// row is its own partner.
int32_t convertToI420(const uint8_t* src, int32_t srcStride, uint8_t* dstY, int32_t dstStrideY,
                      uint8_t* dstU, int32_t dstStrideU, uint8_t* dstV, int32_t dstStrideV,
                      int32_t width, int32_t height, const PixelLayout& layout) {
  LumaRow* lumaRow = chooseLumaRow(width, layout);
  ChromaRow* chromaRow = chooseChromaRow(width, layout);
  if (src == nullptr || dstY == nullptr || dstU == nullptr || dstV == nullptr || width < 1 ||
      height < 1 || lumaRow == nullptr || chromaRow == nullptr)
    return -1;
  for (ptrdiff_t y = 0; y < height; y += 2) {
    const bool isPair = y + 1 < height;
    const uint8_t* row = src + y * srcStride;
    chromaRow(row, isPair ? srcStride : 0, dstU + y / 2 * dstStrideU, dstV + y / 2 * dstStrideV,
              width);
    lumaRow(row, dstY + y * dstStrideY, width);
    if (isPair)
      lumaRow(row + srcStride, dstY + (y + 1) * dstStrideY, width);
  }
  return 0;
}

}  // namespace TavroRTC::FDModule
