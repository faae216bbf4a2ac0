// Which form of a colour or layout kernel runs: a table for each family, one row for each layout or
// operation. All of these finish a row with a scratch block (row_tails.h says why).

#include <iterator>

#include "image/color_row_forms.h"
#include "image/row_forms.h"
#include "image/row_tails.h"

namespace TavroRTC::FDModule {
namespace {

constexpr int32_t block = ssse3::colorBlock;

template <LumaRow* blockForm, int32_t bytesPerPixel>
void lumaScratchTail(const uint8_t* src, uint8_t* dstY, int32_t width) {
  const RowSplit<block> split(width);
  blockForm(src, dstY, split.whole);
  ScratchBlock<size_t{block} * bytesPerPixel> input(src + ptrdiff_t{split.whole} * bytesPerPixel,
                                                    split.rest * bytesPerPixel);
  ScratchBlock<block> output;
  blockForm(input.data(), output.data(), block);
  output.copyTo(dstY + split.whole, split.rest);
}

// An odd width's last pixel stands in the scratch twice, so that the last average sees two equal
// columns.
template <ChromaRow* blockForm, int32_t bytesPerPixel>
void chromaScratchTail(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                       int32_t width) {
  constexpr int32_t blockBytes = block * bytesPerPixel;
  const RowSplit<block> split(width);
  blockForm(src, srcStride, dstU, dstV, split.whole);
  if (split.rest == 0)
    return;
  const int32_t restBytes = split.rest * bytesPerPixel;
  ScratchBlock<size_t{2} * blockBytes> input;
  for (ptrdiff_t row = 0; row < 2; ++row) {
    uint8_t* scratch = input.data() + row * blockBytes;
    std::memcpy(scratch, src + row * srcStride + ptrdiff_t{split.whole} * bytesPerPixel,
                static_cast<size_t>(restBytes));
    if (split.rest % 2 != 0)
      std::memcpy(scratch + restBytes, scratch + restBytes - bytesPerPixel, bytesPerPixel);
  }
  ScratchBlock<block / 2> outputU;
  ScratchBlock<block / 2> outputV;
  blockForm(input.data(), blockBytes, outputU.data(), outputV.data(), block);
  outputU.copyTo(dstU + split.whole / 2, (split.rest + 1) / 2);
  outputV.copyTo(dstV + split.whole / 2, (split.rest + 1) / 2);
}

template <PackedRow* blockForm, int32_t srcBytes, int32_t dstBytes>
void packedScratchTail(const uint8_t* src, uint8_t* dst, int32_t width) {
  const RowSplit<block> split(width);
  blockForm(src, dst, split.whole);
  ScratchBlock<size_t{block} * srcBytes> input(src + ptrdiff_t{split.whole} * srcBytes,
                                               split.rest * srcBytes);
  ScratchBlock<size_t{block} * dstBytes> output;
  blockForm(input.data(), output.data(), block);
  output.copyTo(dst + ptrdiff_t{split.whole} * dstBytes, split.rest * dstBytes);
}

void mergeScratchTail(const uint8_t* first, const uint8_t* second, uint8_t* dst, int32_t width) {
  const RowSplit<block> split(width);
  ssse3::mergeChromaRow(first, second, dst, split.whole);
  ScratchBlock<block> lastFirst(first + split.whole, split.rest);
  ScratchBlock<block> lastSecond(second + split.whole, split.rest);
  ScratchBlock<size_t{2} * block> output;
  ssse3::mergeChromaRow(lastFirst.data(), lastSecond.data(), output.data(), block);
  output.copyTo(dst + ptrdiff_t{2} * split.whole, 2 * split.rest);
}

void splitScratchTail(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width) {
  const RowSplit<block> split(width);
  ssse3::splitChromaRow(src, first, second, split.whole);
  ScratchBlock<size_t{2} * block> input(src + ptrdiff_t{2} * split.whole, 2 * split.rest);
  ScratchBlock<block> outputFirst;
  ScratchBlock<block> outputSecond;
  ssse3::splitChromaRow(input.data(), outputFirst.data(), outputSecond.data(), block);
  outputFirst.copyTo(first + split.whole, split.rest);
  outputSecond.copyTo(second + split.whole, split.rest);
}

template <typename Kernel>
struct Forms {
  Kernel* plainForm;
  Kernel* blockForm;
  Kernel* withTail;

  Kernel* choose(int32_t width) const {
    if (!blockFormsRun())
      return plainForm;
    return width % block == 0 ? blockForm : withTail;
  }
};

struct LayoutRow {
  PixelLayout layout;
  Forms<LumaRow> luma;
  Forms<ChromaRow> chroma;
};

template <PixelLayout layout, LumaRow* luma, ChromaRow* chroma>
constexpr LayoutRow layoutRow() {
  return {layout,
          {plain::lumaRow<layout>, luma, lumaScratchTail<luma, layout.bytesPerPixel>},
          {plain::chromaRow<layout>, chroma, chromaScratchTail<chroma, layout.bytesPerPixel>}};
}

constexpr LayoutRow layouts[] = {
    layoutRow<rgb24, ssse3::lumaRowRgb24, ssse3::chromaRowRgb24>(),
    layoutRow<bgr24, ssse3::lumaRowBgr24, ssse3::chromaRowBgr24>(),
    layoutRow<rgba32, ssse3::lumaRowRgba32, ssse3::chromaRowRgba32>(),
    layoutRow<bgra32, ssse3::lumaRowBgra32, ssse3::chromaRowBgra32>(),
    layoutRow<argb32, ssse3::lumaRowArgb32, ssse3::chromaRowArgb32>(),
    layoutRow<abgr32, ssse3::lumaRowAbgr32, ssse3::chromaRowAbgr32>(),
};

const LayoutRow* findLayout(const PixelLayout& layout) {
  for (const LayoutRow& row : layouts)
    if (row.layout == layout)
      return &row;
  return nullptr;
}

constexpr Forms<LumaRow> fineLumaRows = {plain::lumaRow<rgb24>, ssse3::fineLumaRowRgb24,
                                         lumaScratchTail<ssse3::fineLumaRowRgb24, 3>};

// By PackedOp.
constexpr Forms<PackedRow> packedRows[] = {
    {plain::packedRow<PackedOp::addOpaque>, ssse3::packedRowAddOpaque,
     packedScratchTail<ssse3::packedRowAddOpaque, 3, 4>},
    {plain::packedRow<PackedOp::dropLast>, ssse3::packedRowDropLast,
     packedScratchTail<ssse3::packedRowDropLast, 4, 3>},
    {plain::packedRow<PackedOp::addOpaqueSwapped>, ssse3::packedRowAddOpaqueSwapped,
     packedScratchTail<ssse3::packedRowAddOpaqueSwapped, 3, 4>},
};

constexpr Forms<MergeChromaRow> mergeRows = {plain::mergeChromaRow, ssse3::mergeChromaRow,
                                             mergeScratchTail};
constexpr Forms<SplitChromaRow> splitRows = {plain::splitChromaRow, ssse3::splitChromaRow,
                                             splitScratchTail};

}  // namespace

LumaRow* chooseLumaRow(int32_t width, const PixelLayout& layout) {
  const LayoutRow* row = findLayout(layout);
  return row == nullptr ? nullptr : row->luma.choose(width);
}

LumaRow* chooseFineLumaRow(int32_t width) {
  return fineLumaRows.choose(width);
}

ChromaRow* chooseChromaRow(int32_t width, const PixelLayout& layout) {
  const LayoutRow* row = findLayout(layout);
  return row == nullptr ? nullptr : row->chroma.choose(width);
}

PackedRow* choosePackedRow(int32_t width, PackedOp op) {
  const auto index = static_cast<size_t>(op);
  return index < std::size(packedRows) ? packedRows[index].choose(width) : nullptr;
}

MergeChromaRow* chooseMergeChromaRow(int32_t width) {
  return mergeRows.choose(width);
}

SplitChromaRow* chooseSplitChromaRow(int32_t width) {
  return splitRows.choose(width);
}

}  // namespace TavroRTC::FDModule
