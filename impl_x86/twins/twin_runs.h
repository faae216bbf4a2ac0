#pragma once

// The functions of all twins, by the file that has them. A function's name is its kernel's, with
// the width of its registers.

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule::x86 {

// avx_tap_twins.cpp
ConvRun convSse1x1_4x4_256;

}  // namespace TavroRTC::FDModule::x86
