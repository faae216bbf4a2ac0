#pragma once

// The forms of the row kernels, for the tables of row_selection.cpp. Every form has the type
// of its family; a block form takes whole blocks only.

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {

/// False while the plain forms are asked for, and on a processor without SSSE3.
bool blockFormsRun();

namespace plain {

CopyKernel copyRow;
InterpolateKernel interpolateRows;
ColumnsKernel filterColumns;
HalveKernel halveRowPoint;
HalveKernel halveRowLinear;
HalveKernel halveRowBox;
ColumnsKernel filterColumns24;
ColumnsKernel filterColumns32;
HalveKernel halveRowPoint24;
HalveKernel halveRowPoint32;
HalveKernel halveRowLinear24;
HalveKernel halveRowLinear32;
HalveKernel halveRowBox24;
HalveKernel halveRowBox32;
YuvKernel yuvRowFourBytes;
YuvKernel yuvRowOpaqueFirst;
YuvKernel yuvRowThreeBytes;
template <PixelLayout layout>
LumaKernel lumaRow;
template <PixelLayout layout>
ChromaKernel chromaRow;
template <PackedOp op>
PackedKernel packedRow;
MergeChromaKernel mergeChromaRow;
SplitChromaKernel splitChromaRow;

}  // namespace plain

namespace ssse3 {

inline constexpr int32_t interpolateBlock = 16;
inline constexpr int32_t columnsBlock = 8;
inline constexpr int32_t halveBlock = 16;
inline constexpr int32_t packed24Block = 16;
inline constexpr int32_t packed32Block = 4;
inline constexpr int32_t yuvBlock = 8;
inline constexpr int32_t colorBlock = 16;

InterpolateKernel interpolateRows;
ColumnsKernel filterColumns;
HalveKernel halveRowPoint;
HalveKernel halveRowBox;
BlendColumnsKernel blendColumns;
ColumnsKernel filterColumns24;  // takes any width: it finishes the row itself
ColumnsKernel filterColumns32;
HalveKernel halveRowBox24;
HalveKernel halveRowBox32;
YuvKernel yuvRowFourBytes;
YuvKernel yuvRowOpaqueFirst;
YuvKernel yuvRowThreeBytes;
LumaKernel fineLumaRowRgb24;
LumaKernel lumaRowRgb24;
LumaKernel lumaRowBgr24;
LumaKernel lumaRowRgba32;
LumaKernel lumaRowBgra32;
LumaKernel lumaRowArgb32;
LumaKernel lumaRowAbgr32;
ChromaKernel chromaRowRgb24;
ChromaKernel chromaRowBgr24;
ChromaKernel chromaRowRgba32;
ChromaKernel chromaRowBgra32;
ChromaKernel chromaRowArgb32;
ChromaKernel chromaRowAbgr32;
PackedKernel packedRowAddOpaque;
PackedKernel packedRowDropLast;
PackedKernel packedRowAddOpaqueSwapped;
MergeChromaKernel mergeChromaRow;
SplitChromaKernel splitChromaRow;

}  // namespace ssse3

// Twins of block forms: the same bytes for the same blocks, in wider registers.
namespace avx2 {

YuvKernel yuvRowFourBytes;
YuvKernel yuvRowOpaqueFirst;
YuvKernel yuvRowThreeBytes;
PackedKernel packedRowDropLast;

}  // namespace avx2

}  // namespace TavroRTC::FDModule
