// Which kernel has which twin, and what the twin needs.

#include "engine/cpu_info.h"
#include "engine/simd/conv_kernels.h"
#include "impl_x86/avx_kernels.h"
#include "impl_x86/twins.h"

namespace TavroRTC::FDModule::x86 {
namespace {

bool withAvxAndFma() {
  return cpuInfo().runsAvxAndFma();
}

bool withAvx512() {
  return cpuInfo().runsAvx512();
}

constexpr Twin table[] = {
    {&simd::convSse1x1_4x4, 256, withAvxAndFma, convSse1x1_4x4_256},
    {&conv1x1_32x3, 512, withAvx512, conv1x1_32x3_512},
    {&conv1x1_16x4, 512, withAvx512, conv1x1_16x4_512},
    {&conv3x3s1_16x4, 512, withAvx512, conv3x3s1_16x4_512},
    {&conv3x3dil_16x4, 512, withAvx512, conv3x3dil_16x4_512},
    {&conv3x3bytes_16x4, 512, withAvx512, conv3x3bytes_16x4_512},
    {&dwConv3x3_16x4, 512, withAvx512, dwConv3x3_16x4_512},
    {&dwConv3x3s1_16x5, 512, withAvx512, dwConv3x3_16x4_512},
};

}  // namespace

std::span<const Twin> twins() {
  return table;
}

}  // namespace TavroRTC::FDModule::x86
