// Which form of a kernel runs: a table for each family, one row for each pixel size or layout.

#include <atomic>

#include "image/row_forms.h"
#include "image/row_tails.h"

namespace TavroRTC::FDModule {
namespace {

std::atomic<uint8_t> plainRowsSwitch = 0;

template <typename Kernel>
struct KernelRow {
  int32_t code;   // what the family's chooser goes by: pixel size, filter, pack mode
  int32_t block;  // pixels that the block form does at a time
  Kernel* plainForm;
  Kernel* blockForm;  // null where there is none: the plain form serves all widths
  Kernel* withTail;
};

template <typename Kernel, size_t count>
Kernel* choose(const KernelRow<Kernel> (&table)[count], int32_t code, int64_t width) {
  for (const KernelRow<Kernel>& row : table) {
    if (row.code != code)
      continue;
    if (row.blockForm == nullptr || !blockFormsRun())
      return row.plainForm;
    return width % row.block == 0 ? row.blockForm : row.withTail;
  }
  return nullptr;
}

constexpr int32_t onlyRow = 0;

constexpr KernelRow<InterpolateRows> interpolateKernels[] = {
    {onlyRow, ssse3::interpolateBlock, plain::interpolateRows, ssse3::interpolateRows,
     interpolateScratchTail<ssse3::interpolateRows, ssse3::interpolateBlock>},
};

// By bytes per pixel.
constexpr KernelRow<ColumnsRow> filterColumnsKernels[] = {
    {1, ssse3::columnsBlock, plain::filterColumns, ssse3::filterColumns,
     columnsPlainTail<ssse3::filterColumns, plain::filterColumns, ssse3::columnsBlock>},
    {3, 1, plain::filterColumns24, ssse3::filterColumns24, nullptr},
    {4, ssse3::packed32Block, plain::filterColumns32, ssse3::filterColumns32,
     columnsPlainTail<ssse3::filterColumns32, plain::filterColumns32, ssse3::packed32Block, 4>},
};

constexpr int32_t halveCode(ScaleFilter filter, int32_t bytesPerPixel) {
  return static_cast<int32_t>(filter) * 16 + bytesPerPixel;
}

constexpr KernelRow<HalveRow> halveKernels[] = {
    {halveCode(ScaleFilter::Nearest, 1), ssse3::halveBlock, plain::halveRowPoint,
     ssse3::halveRowPoint,
     halvePlainTail<ssse3::halveRowPoint, plain::halveRowPoint, ssse3::halveBlock>},
    {halveCode(ScaleFilter::Linear, 1), 1, plain::halveRowLinear, nullptr, nullptr},
    {halveCode(ScaleFilter::Bilinear, 1), ssse3::halveBlock, plain::halveRowBox, ssse3::halveRowBox,
     halvePlainTail<ssse3::halveRowBox, plain::halveRowBox, ssse3::halveBlock>},
    {halveCode(ScaleFilter::Nearest, 3), 1, plain::halveRowPoint24, nullptr, nullptr},
    {halveCode(ScaleFilter::Linear, 3), 1, plain::halveRowLinear24, nullptr, nullptr},
    {halveCode(ScaleFilter::Bilinear, 3), ssse3::packed24Block, plain::halveRowBox24,
     ssse3::halveRowBox24,
     halvePlainTail<ssse3::halveRowBox24, plain::halveRowBox24, ssse3::packed24Block, 3>},
    {halveCode(ScaleFilter::Nearest, 4), 1, plain::halveRowPoint32, nullptr, nullptr},
    {halveCode(ScaleFilter::Linear, 4), 1, plain::halveRowLinear32, nullptr, nullptr},
    {halveCode(ScaleFilter::Bilinear, 4), ssse3::packed32Block, plain::halveRowBox32,
     ssse3::halveRowBox32,
     halvePlainTail<ssse3::halveRowBox32, plain::halveRowBox32, ssse3::packed32Block, 4>},
};

constexpr KernelRow<YuvRow> yuvKernels[] = {
    {static_cast<int32_t>(PackMode::fourBytes), ssse3::yuvBlock, plain::yuvRowFourBytes,
     ssse3::yuvRowFourBytes, yuvScratchTail<ssse3::yuvRowFourBytes, ssse3::yuvBlock, 4>},
    {static_cast<int32_t>(PackMode::opaqueFirst), ssse3::yuvBlock, plain::yuvRowOpaqueFirst,
     ssse3::yuvRowOpaqueFirst, yuvScratchTail<ssse3::yuvRowOpaqueFirst, ssse3::yuvBlock, 4>},
    {static_cast<int32_t>(PackMode::threeBytes), ssse3::yuvBlock, plain::yuvRowThreeBytes,
     ssse3::yuvRowThreeBytes, yuvScratchTail<ssse3::yuvRowThreeBytes, ssse3::yuvBlock, 3>},
};

}  // namespace

bool blockFormsRun() {
  return plainRowsSwitch.load(std::memory_order_relaxed) == 0 && __builtin_cpu_supports("ssse3");
}

InterpolateRows* chooseInterpolateRows(int32_t width, int32_t bytesPerPixel) {
  return choose(interpolateKernels, onlyRow, int64_t{width} * bytesPerPixel);
}

ColumnsRow* chooseColumns(int32_t dstWidth, int32_t bytesPerPixel) {
  return choose(filterColumnsKernels, bytesPerPixel, dstWidth);
}

BlendColumnsRow* chooseBlendColumns(int32_t dstWidth, int32_t bytesPerPixel) {
  const bool isThere = bytesPerPixel == 1 && dstWidth % ssse3::columnsBlock == 0 && blockFormsRun();
  return isThere ? ssse3::blendColumns : nullptr;
}

HalveRow* chooseHalveRow(int32_t dstWidth, int32_t bytesPerPixel, ScaleFilter filter) {
  return choose(halveKernels, halveCode(filter, bytesPerPixel), dstWidth);
}

YuvRow* chooseYuvRow(int32_t width, PackMode packMode) {
  return choose(yuvKernels, static_cast<int32_t>(packMode), width);
}

void setPlainRowsOnly(uint8_t value) {
  plainRowsSwitch.store(value, std::memory_order_relaxed);
}

}  // namespace TavroRTC::FDModule
