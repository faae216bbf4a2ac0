#pragma once

// The forms of the kernels of color_row_kernels.h, for the tables of color_row_selection.cpp. Block
// forms take whole blocks of 16 only.

#include "image/color_row_kernels.h"

namespace TavroRTC::FDModule {

namespace plain {

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

inline constexpr int32_t colorBlock = 16;

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

}  // namespace TavroRTC::FDModule
