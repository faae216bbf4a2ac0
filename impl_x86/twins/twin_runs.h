#pragma once

// The functions of all twins, by the file that has them. A function's name is its kernel's, with
// the width of its registers.

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule::x86 {

// avx_tap_twins.cpp
ConvRun convSse1x1_4x4_256;

// avx512_twins.cpp
ConvRun conv1x1_32x3_512;
ConvRun conv1x1_16x4_512;
ConvRun conv3x3s1_16x4_512;
ConvRun conv3x3dil_16x4_512;
ConvRun conv3x3bytes_16x4_512;
ConvRun dwConv3x3_16x4_512;  // of both depthwise kernels

}  // namespace TavroRTC::FDModule::x86
