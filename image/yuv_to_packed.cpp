#include "image/yuv_to_packed.h"

#include <cstddef>

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {
namespace {

struct ChromaPair {
  int8_t u;
  int8_t v;
};

// Blue's factor from U is 2.000 and not the standard's 2.018, for which 128 leaves no room: 129
// doesn't fit a signed byte.
constexpr ChromaPair blue = {-128, 0};
constexpr ChromaPair green = {25, 52};
constexpr ChromaPair red = {0, -102};

// 1.164 * 64 * 65536 / 257: the factor of y, which the kernels widen to 16 bits as y * 257.
constexpr int16_t yGain = 18997;
// 1.164 * 64 * -16, the black level, plus half a unit of the shift that ends the sum.
constexpr int16_t blackOffset = -1160;

constexpr ChromaPair swapped(ChromaPair pair) {
  return {pair.v, pair.u};
}

// Chroma is centred on 128.
constexpr int16_t biasOf(ChromaPair pair) {
  return static_cast<int16_t>(128 * (pair.u + pair.v) + blackOffset);
}

constexpr YuvTable makeTable(ChromaPair first, ChromaPair second, ChromaPair third) {
  YuvTable table = {};
  for (ptrdiff_t i = 0; i < YuvTable::copies; ++i) {
    table.first[2 * i] = first.u;
    table.first[2 * i + 1] = first.v;
    table.second[2 * i] = second.u;
    table.second[2 * i + 1] = second.v;
    table.third[2 * i] = third.u;
    table.third[2 * i + 1] = third.v;
    table.firstBias[i] = biasOf(first);
    table.secondBias[i] = biasOf(second);
    table.thirdBias[i] = biasOf(third);
    table.yGain[i] = yGain;
  }
  return table;
}

}  // namespace

constinit const YuvTable yuvTableBgr = makeTable(blue, green, red);
constinit const YuvTable yuvTableRgb = makeTable(swapped(red), swapped(green), swapped(blue));

int32_t convertI420ToPacked(const uint8_t* srcY, int32_t strideY, const uint8_t* srcU,
                            int32_t strideU, const uint8_t* srcV, int32_t strideV, uint8_t* dst,
                            int32_t dstStride, const YuvTable& constants, int32_t width,
                            int32_t height, PackMode packMode) {
  YuvRow* convertRow = chooseYuvRow(width, packMode);
  if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dst == nullptr || width < 1 ||
      height < 1 || convertRow == nullptr)
    return -1;
  for (ptrdiff_t y = 0; y < height; ++y)
    convertRow(srcY + y * strideY, srcU + y / 2 * strideU, srcV + y / 2 * strideV,
               dst + y * dstStride, constants, width);
  return 0;
}

}  // namespace TavroRTC::FDModule
