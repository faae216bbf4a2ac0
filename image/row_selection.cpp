// Which form of a kernel runs: for each family a table, one row for each pixel size, layout or
// operation, or just the forms where there is one of them only.

#include <atomic>

#include "engine/cpu_info.h"
#include "image/row_forms.h"
#include "image/row_tails.h"

namespace TavroRTC::FDModule {
namespace {

std::atomic<uint8_t> plainRowsOnly = 0;

template <typename Kernel>
struct Forms {
  Kernel* plainForm;
  int32_t block = 1;            // pixels that the block form does at a time
  Kernel* blockForm = nullptr;  // null where there is none: the plain form serves all widths
  Kernel* withTail = nullptr;
  Kernel* twin = nullptr;  // of the block form, likewise
  Kernel* twinWithTail = nullptr;

  Kernel* choose(int64_t width) const {
    if (blockForm == nullptr || !blockFormsRun())
      return plainForm;
    const bool isWide = twin != nullptr && cpuInfo().runsAvx2();
    if (width % block == 0)
      return isWide ? twin : blockForm;
    return isWide ? twinWithTail : withTail;
  }
};

template <typename Code, typename Kernel>
struct KernelRow {
  Code code;  // what the family's chooser goes by
  Forms<Kernel> forms;
};

template <typename Code, typename Kernel, size_t count>
Kernel* choose(const KernelRow<Code, Kernel> (&table)[count], const Code& code, int32_t width) {
  for (const KernelRow<Code, Kernel>& row : table)
    if (row.code == code)
      return row.forms.choose(width);
  return nullptr;
}

constexpr Forms<InterpolateKernel> interpolateForms = {
    plain::interpolateRows, ssse3::interpolateBlock, ssse3::interpolateRows,
    interpolateScratchTail<ssse3::interpolateRows, ssse3::interpolateBlock>};

// By bytes per pixel.
constexpr KernelRow<int32_t, ColumnsKernel> filterColumnsKernels[] = {
    {1,
     {plain::filterColumns, ssse3::columnsBlock, ssse3::filterColumns,
      columnsPlainTail<ssse3::filterColumns, plain::filterColumns, ssse3::columnsBlock>}},
    {3, {plain::filterColumns24, 1, ssse3::filterColumns24}},
    {4,
     {plain::filterColumns32, ssse3::packed32Block, ssse3::filterColumns32,
      columnsPlainTail<ssse3::filterColumns32, plain::filterColumns32, ssse3::packed32Block, 4>}},
};

struct HalveCode {
  ScaleFilter filter;
  int32_t bytesPerPixel;

  friend constexpr bool operator==(const HalveCode&, const HalveCode&) = default;
};

constexpr KernelRow<HalveCode, HalveKernel> halveKernels[] = {
    {{ScaleFilter::Nearest, 1},
     {plain::halveRowPoint, ssse3::halveBlock, ssse3::halveRowPoint,
      halvePlainTail<ssse3::halveRowPoint, plain::halveRowPoint, ssse3::halveBlock>}},
    {{ScaleFilter::Linear, 1}, {plain::halveRowLinear}},
    {{ScaleFilter::Bilinear, 1},
     {plain::halveRowBox, ssse3::halveBlock, ssse3::halveRowBox,
      halvePlainTail<ssse3::halveRowBox, plain::halveRowBox, ssse3::halveBlock>}},
    {{ScaleFilter::Nearest, 3}, {plain::halveRowPoint24}},
    {{ScaleFilter::Linear, 3}, {plain::halveRowLinear24}},
    {{ScaleFilter::Bilinear, 3},
     {plain::halveRowBox24, ssse3::packed24Block, ssse3::halveRowBox24,
      halvePlainTail<ssse3::halveRowBox24, plain::halveRowBox24, ssse3::packed24Block, 3>}},
    {{ScaleFilter::Nearest, 4}, {plain::halveRowPoint32}},
    {{ScaleFilter::Linear, 4}, {plain::halveRowLinear32}},
    {{ScaleFilter::Bilinear, 4},
     {plain::halveRowBox32, ssse3::packed32Block, ssse3::halveRowBox32,
      halvePlainTail<ssse3::halveRowBox32, plain::halveRowBox32, ssse3::packed32Block, 4>}},
};

template <YuvKernel* plainForm, YuvKernel* blockForm, YuvKernel* twin, int32_t bytesPerPixel>
constexpr Forms<YuvKernel> yuvForms = {
    plainForm, ssse3::yuvBlock,
    blockForm, yuvScratchTail<blockForm, ssse3::yuvBlock, bytesPerPixel>,
    twin,      yuvScratchTail<twin, ssse3::yuvBlock, bytesPerPixel>};

constexpr KernelRow<PackMode, YuvKernel> yuvKernels[] = {
    {PackMode::fourBytes,
     yuvForms<plain::yuvRowFourBytes, ssse3::yuvRowFourBytes, avx2::yuvRowFourBytes, 4>},
    {PackMode::opaqueFirst,
     yuvForms<plain::yuvRowOpaqueFirst, ssse3::yuvRowOpaqueFirst, avx2::yuvRowOpaqueFirst, 4>},
    {PackMode::threeBytes,
     yuvForms<plain::yuvRowThreeBytes, ssse3::yuvRowThreeBytes, avx2::yuvRowThreeBytes, 3>},
};

template <PixelLayout layout, LumaKernel* blockForm>
constexpr KernelRow<PixelLayout, LumaKernel> lumaRowOf = {
    layout,
    {plain::lumaRow<layout>, colorBlock, blockForm,
     lumaScratchTail<blockForm, layout.bytesPerPixel>}};

constexpr KernelRow<PixelLayout, LumaKernel> lumaKernels[] = {
    lumaRowOf<rgb24, ssse3::lumaRowRgb24>,   lumaRowOf<bgr24, ssse3::lumaRowBgr24>,
    lumaRowOf<rgba32, ssse3::lumaRowRgba32>, lumaRowOf<bgra32, ssse3::lumaRowBgra32>,
    lumaRowOf<argb32, ssse3::lumaRowArgb32>, lumaRowOf<abgr32, ssse3::lumaRowAbgr32>,
};

constexpr Forms<LumaKernel> fineLumaForms = lumaRowOf<rgb24, ssse3::fineLumaRowRgb24>.forms;

template <PixelLayout layout, ChromaKernel* blockForm>
constexpr KernelRow<PixelLayout, ChromaKernel> chromaRowOf = {
    layout,
    {plain::chromaRow<layout>, colorBlock, blockForm,
     chromaScratchTail<blockForm, layout.bytesPerPixel>}};

constexpr KernelRow<PixelLayout, ChromaKernel> chromaKernels[] = {
    chromaRowOf<rgb24, ssse3::chromaRowRgb24>,   chromaRowOf<bgr24, ssse3::chromaRowBgr24>,
    chromaRowOf<rgba32, ssse3::chromaRowRgba32>, chromaRowOf<bgra32, ssse3::chromaRowBgra32>,
    chromaRowOf<argb32, ssse3::chromaRowArgb32>, chromaRowOf<abgr32, ssse3::chromaRowAbgr32>,
};

template <PackedOp op, PackedKernel* blockForm, int32_t srcBytes, int32_t dstBytes>
constexpr Forms<PackedKernel> packedForms = {plain::packedRow<op>, colorBlock, blockForm,
                                             packedScratchTail<blockForm, srcBytes, dstBytes>};

constexpr KernelRow<PackedOp, PackedKernel> packedKernels[] = {
    {PackedOp::addOpaque, packedForms<PackedOp::addOpaque, ssse3::packedRowAddOpaque, 3, 4>},
    {PackedOp::dropLast,
     {plain::packedRow<PackedOp::dropLast>, colorBlock, ssse3::packedRowDropLast,
      packedScratchTail<ssse3::packedRowDropLast, 4, 3>, avx2::packedRowDropLast,
      packedScratchTail<avx2::packedRowDropLast, 4, 3>}},
    {PackedOp::addOpaqueSwapped,
     packedForms<PackedOp::addOpaqueSwapped, ssse3::packedRowAddOpaqueSwapped, 3, 4>},
};

constexpr Forms<MergeChromaKernel> mergeForms = {plain::mergeChromaRow, colorBlock,
                                                 ssse3::mergeChromaRow, mergeScratchTail};
constexpr Forms<SplitChromaKernel> splitForms = {plain::splitChromaRow, colorBlock,
                                                 ssse3::splitChromaRow, splitScratchTail};

}  // namespace

bool blockFormsRun() {
  return plainRowsOnly.load(std::memory_order_relaxed) == 0 && cpuInfo().hasSsse3();
}

CopyKernel* chooseCopyRow(int32_t /*bytes*/) {
  return plain::copyRow;
}

InterpolateKernel* chooseInterpolateRows(int32_t width, int32_t bytesPerPixel) {
  return interpolateForms.choose(int64_t{width} * bytesPerPixel);
}

ColumnsKernel* chooseColumns(int32_t dstWidth, int32_t bytesPerPixel) {
  return choose(filterColumnsKernels, bytesPerPixel, dstWidth);
}

BlendColumnsKernel* chooseBlendColumns(int32_t dstWidth, int32_t bytesPerPixel) {
  const bool isThere = bytesPerPixel == 1 && dstWidth % ssse3::columnsBlock == 0 && blockFormsRun();
  return isThere ? ssse3::blendColumns : nullptr;
}

HalveKernel* chooseHalveRow(int32_t dstWidth, int32_t bytesPerPixel, ScaleFilter filter) {
  return choose(halveKernels, {filter, bytesPerPixel}, dstWidth);
}

YuvKernel* chooseYuvRow(int32_t width, PackMode packMode) {
  return choose(yuvKernels, packMode, width);
}

LumaKernel* chooseLumaRow(int32_t width, const PixelLayout& layout) {
  return choose(lumaKernels, layout, width);
}

LumaKernel* chooseFineLumaRow(int32_t width) {
  return fineLumaForms.choose(width);
}

ChromaKernel* chooseChromaRow(int32_t width, const PixelLayout& layout) {
  return choose(chromaKernels, layout, width);
}

PackedKernel* choosePackedRow(int32_t width, PackedOp op) {
  return choose(packedKernels, op, width);
}

MergeChromaKernel* chooseMergeChromaRow(int32_t width) {
  return mergeForms.choose(width);
}

SplitChromaKernel* chooseSplitChromaRow(int32_t width) {
  return splitForms.choose(width);
}

void setPlainRowsOnly(uint8_t value) {
  plainRowsOnly.store(value, std::memory_order_relaxed);
}

}  // namespace TavroRTC::FDModule
