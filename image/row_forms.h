#pragma once

// The forms of the row kernels, for the tables of row_kernel_selection.cpp. Every form has the type
// of its family; a block form takes whole blocks only.

#include "image/row_kernels.h"

namespace TavroRTC::FDModule {

/// False while the plain forms are asked for, and on a processor without SSSE3.
bool blockFormsRun();

namespace plain {

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

}  // namespace plain

namespace ssse3 {

inline constexpr int32_t interpolateBlock = 16;
inline constexpr int32_t columnsBlock = 8;
inline constexpr int32_t halveBlock = 16;
inline constexpr int32_t packed24Block = 16;
inline constexpr int32_t packed32Block = 4;
inline constexpr int32_t yuvBlock = 8;

InterpolateRows interpolateRows;
ColumnsRow filterColumns;
HalveRow halveRowPoint;
HalveRow halveRowBox;
BlendColumnsRow blendColumns;
ColumnsRow filterColumns24;  // takes any width: its last pixels are a matter of its own
ColumnsRow filterColumns32;
HalveRow halveRowBox24;
HalveRow halveRowBox32;
YuvRow yuvRowFourBytes;
YuvRow yuvRowOpaqueFirst;
YuvRow yuvRowThreeBytes;

}  // namespace ssse3

}  // namespace TavroRTC::FDModule
