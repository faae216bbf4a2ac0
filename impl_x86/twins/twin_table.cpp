// Which kernel has which twin, and what the twin needs.

#include "engine/cpu_info.h"
#include "engine/simd/conv_kernels.h"
#include "impl_x86/avx_kernels.h"
#include "impl_x86/twins.h"
#include "impl_x86/twins/twin_runs.h"

namespace TavroRTC::FDModule::x86 {
namespace {

bool withAvxAndFma() {
  return cpuInfo().runsAvxAndFma();
}

constexpr Twin table[] = {
    {&simd::convSse1x1_4x4, 256, withAvxAndFma, convSse1x1_4x4_256},
};

}  // namespace

std::span<const Twin> twins() {
  return table;
}

}  // namespace TavroRTC::FDModule::x86
