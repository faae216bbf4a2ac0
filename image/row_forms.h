#pragma once

// The forms of the row kernels, for the tables of row_selection.cpp. Every form has the type
// of its family; a block form takes whole blocks only.

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {

/// False while the plain forms are asked for, and on a processor without SSSE3.
bool blockFormsRun();

namespace plain {

CopyRow copyRow;
InterpolateRows interpolateRows;
ColumnsRow filterColumns;
HalveRow halveRowPoint;
HalveRow halveRowLinear;
HalveRow halveRowBox;
ColumnsRow filterColumns24;
ColumnsRow filterColumns32;
HalveRow halveRowPoint24;
HalveRow halveRowPoint32;
HalveRow halveRowLinear24;
HalveRow halveRowLinear32;
HalveRow halveRowBox24;
HalveRow halveRowBox32;
YuvRow yuvRowFourBytes;
YuvRow yuvRowOpaqueFirst;
YuvRow yuvRowThreeBytes;
template <PixelLayout layout>
LumaRow lumaRow;
template <PixelLayout layout>
ChromaRow chromaRow;
template <PackedOp op>
PackedRow packedRow;
MergeChromaRow mergeChromaRow;
SplitChromaRow splitChromaRow;

}  // namespace plain

namespace ssse3 {

inline constexpr int32_t interpolateBlock = 16;
inline constexpr int32_t columnsBlock = 8;
inline constexpr int32_t halveBlock = 16;
inline constexpr int32_t packed24Block = 16;
inline constexpr int32_t packed32Block = 4;
inline constexpr int32_t yuvBlock = 8;
inline constexpr int32_t colorBlock = 16;

InterpolateRows interpolateRows;
ColumnsRow filterColumns;
HalveRow halveRowPoint;
HalveRow halveRowBox;
BlendColumnsRow blendColumns;
ColumnsRow filterColumns24;  // takes any width: it finishes the row itself
ColumnsRow filterColumns32;
HalveRow halveRowBox24;
HalveRow halveRowBox32;
YuvRow yuvRowFourBytes;
YuvRow yuvRowOpaqueFirst;
YuvRow yuvRowThreeBytes;
LumaRow fineLumaRowRgb24;
LumaRow lumaRowRgb24;
LumaRow lumaRowBgr24;
LumaRow lumaRowRgba32;
LumaRow lumaRowBgra32;
LumaRow lumaRowArgb32;
LumaRow lumaRowAbgr32;
ChromaRow chromaRowRgb24;
ChromaRow chromaRowBgr24;
ChromaRow chromaRowRgba32;
ChromaRow chromaRowBgra32;
ChromaRow chromaRowArgb32;
ChromaRow chromaRowAbgr32;
PackedRow packedRowAddOpaque;
PackedRow packedRowDropLast;
PackedRow packedRowAddOpaqueSwapped;
MergeChromaRow mergeChromaRow;
SplitChromaRow splitChromaRow;

}  // namespace ssse3

// Twins of block forms: the same bytes for the same blocks, in wider registers.
namespace avx2 {

YuvRow yuvRowFourBytes;
YuvRow yuvRowOpaqueFirst;
YuvRow yuvRowThreeBytes;
PackedRow packedRowDropLast;

}  // namespace avx2

}  // namespace TavroRTC::FDModule
