#pragma once

// Rows that are not a whole number of blocks. The block form does the whole blocks; what is left
// goes either through the plain form, or, where the forms differ in more than speed or the plain
// one is slow, through the block form once more on a scratch block on the stack. Each template
// makes a kernel of the family's own type out of the forms.

#include <cstring>

#include "image/row_forms.h"

namespace TavroRTC::FDModule {

/// A width, split into whole blocks and a rest that is shorter than a block; nothing of either for
/// a width below 1.
template <int32_t block>
struct RowSplit {
  int32_t whole = 0;
  int32_t rest = 0;

  explicit RowSplit(int32_t width) {
    if (width > 0) {
      rest = width % block;
      whole = width - rest;
    }
  }
};

/// One block of samples: the last few of a row, then zeros.
template <size_t size>
class ScratchBlock {
 public:
  ScratchBlock() = default;
  ScratchBlock(const uint8_t* src, int32_t count) {
    std::memcpy(bytes_, src, static_cast<size_t>(count));
  }

  uint8_t* data() { return bytes_; }
  void copyTo(uint8_t* dst, int32_t count) const {
    std::memcpy(dst, bytes_, static_cast<size_t>(count));
  }

 private:
  alignas(16) uint8_t bytes_[size] = {};
};

template <ColumnsKernel* blockForm, ColumnsKernel* plainForm, int32_t block,
          int32_t bytesPerPixel = 1>
void columnsPlainTail(uint8_t* dst, const uint8_t* src, int32_t dstWidth, int32_t x, int32_t dx) {
  const RowSplit<block> split(dstWidth);
  blockForm(dst, src, split.whole, x, dx);
  const auto tailX = static_cast<int32_t>(x + int64_t{split.whole} * dx);
  plainForm(dst + ptrdiff_t{split.whole} * bytesPerPixel, src, split.rest, tailX, dx);
}

template <HalveKernel* blockForm, HalveKernel* plainForm, int32_t block, int32_t bytesPerPixel = 1>
void halvePlainTail(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, int32_t dstWidth) {
  const RowSplit<block> split(dstWidth);
  blockForm(src, srcStride, dst, split.whole);
  const ptrdiff_t wholeBytes = ptrdiff_t{split.whole} * bytesPerPixel;
  plainForm(src + 2 * wholeBytes, srcStride, dst + wholeBytes, split.rest);
}

template <InterpolateKernel* blockForm, int32_t block>
void interpolateScratchTail(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, int32_t bytes,
                            int32_t fraction) {
  const RowSplit<block> split(bytes);
  blockForm(dst, src, srcStride, split.whole, fraction);
  // With fraction 0 there may be no second row.
  const uint8_t* top = src + split.whole;
  ScratchBlock<size_t{2} * block> input(top, split.rest);
  if (fraction != 0)
    std::memcpy(input.data() + block, top + srcStride, static_cast<size_t>(split.rest));
  ScratchBlock<block> output;
  blockForm(output.data(), input.data(), block, block, fraction);
  output.copyTo(dst + split.whole, split.rest);
}

template <YuvKernel* blockForm, int32_t block, int32_t bytesPerPixel>
void yuvScratchTail(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* dst,
                    const YuvTable& constants, int32_t width) {
  const RowSplit<block> split(width);
  blockForm(y, u, v, dst, constants, split.whole);
  const int32_t chroma = (split.rest + 1) / 2;
  ScratchBlock<block> lastY(y + split.whole, split.rest);
  ScratchBlock<block / 2> lastU(u + split.whole / 2, chroma);
  ScratchBlock<block / 2> lastV(v + split.whole / 2, chroma);
  ScratchBlock<size_t{block} * bytesPerPixel> output;
  blockForm(lastY.data(), lastU.data(), lastV.data(), output.data(), constants, block);
  output.copyTo(dst + ptrdiff_t{split.whole} * bytesPerPixel, split.rest * bytesPerPixel);
}

// ---- Colours and layouts, which all have the same block

using ssse3::colorBlock;

template <LumaKernel* blockForm, int32_t bytesPerPixel>
void lumaScratchTail(const uint8_t* src, uint8_t* dstY, int32_t width) {
  const RowSplit<colorBlock> split(width);
  blockForm(src, dstY, split.whole);
  ScratchBlock<size_t{colorBlock} * bytesPerPixel> input(
      src + ptrdiff_t{split.whole} * bytesPerPixel, split.rest * bytesPerPixel);
  ScratchBlock<colorBlock> output;
  blockForm(input.data(), output.data(), colorBlock);
  output.copyTo(dstY + split.whole, split.rest);
}

// An odd width's last pixel stands in the scratch twice, so that the last average sees two equal
// columns.
template <ChromaKernel* blockForm, int32_t bytesPerPixel>
void chromaScratchTail(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dstU, uint8_t* dstV,
                       int32_t width) {
  constexpr int32_t blockBytes = colorBlock * bytesPerPixel;
  const RowSplit<colorBlock> split(width);
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
  ScratchBlock<colorBlock / 2> outputU;
  ScratchBlock<colorBlock / 2> outputV;
  blockForm(input.data(), blockBytes, outputU.data(), outputV.data(), colorBlock);
  outputU.copyTo(dstU + split.whole / 2, (split.rest + 1) / 2);
  outputV.copyTo(dstV + split.whole / 2, (split.rest + 1) / 2);
}

template <PackedKernel* blockForm, int32_t srcBytes, int32_t dstBytes>
void packedScratchTail(const uint8_t* src, uint8_t* dst, int32_t width) {
  const RowSplit<colorBlock> split(width);
  blockForm(src, dst, split.whole);
  ScratchBlock<size_t{colorBlock} * srcBytes> input(src + ptrdiff_t{split.whole} * srcBytes,
                                                    split.rest * srcBytes);
  ScratchBlock<size_t{colorBlock} * dstBytes> output;
  blockForm(input.data(), output.data(), colorBlock);
  output.copyTo(dst + ptrdiff_t{split.whole} * dstBytes, split.rest * dstBytes);
}

inline void mergeScratchTail(const uint8_t* first, const uint8_t* second, uint8_t* dst,
                             int32_t width) {
  const RowSplit<colorBlock> split(width);
  ssse3::mergeChromaRow(first, second, dst, split.whole);
  ScratchBlock<colorBlock> lastFirst(first + split.whole, split.rest);
  ScratchBlock<colorBlock> lastSecond(second + split.whole, split.rest);
  ScratchBlock<size_t{2} * colorBlock> output;
  ssse3::mergeChromaRow(lastFirst.data(), lastSecond.data(), output.data(), colorBlock);
  output.copyTo(dst + ptrdiff_t{2} * split.whole, 2 * split.rest);
}

inline void splitScratchTail(const uint8_t* src, uint8_t* first, uint8_t* second, int32_t width) {
  const RowSplit<colorBlock> split(width);
  ssse3::splitChromaRow(src, first, second, split.whole);
  ScratchBlock<size_t{2} * colorBlock> input(src + ptrdiff_t{2} * split.whole, 2 * split.rest);
  ScratchBlock<colorBlock> outputFirst;
  ScratchBlock<colorBlock> outputSecond;
  ssse3::splitChromaRow(input.data(), outputFirst.data(), outputSecond.data(), colorBlock);
  outputFirst.copyTo(first + split.whole, split.rest);
  outputSecond.copyTo(second + split.whole, split.rest);
}

}  // namespace TavroRTC::FDModule
