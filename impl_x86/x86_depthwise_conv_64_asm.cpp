// The fused multiply-add kernels for depthwise convolutions.
//
// The file is named after the assembly that it stands for: its registers are planned one by one,
// and tests/binaries/inspect_binaries.py looks at what the compiler made of them. Four pixels of 16
// channels take eight registers, five take ten; three more have the weights of a kernel row.

#include "impl_x86/avx_kernels.h"
#include "impl_x86/avx_vectors.h"
#include "impl_x86/depthwise_columns.h"

namespace TavroRTC::FDModule::x86 {
namespace {

bool serves16x4(const ConvProblem& p) {
  return p.isKernel(3, 3) && (p.strideW == 1 || p.strideW == 2) && !p.isDilated() &&
         p.group == p.outputC && p.inputC == p.outputC && p.outputC % depthwiseBlock == 0;
}

bool serves16x5(const ConvProblem& p) {
  return serves16x4(p) && p.strideW == 1;
}

}  // namespace

constinit const ConvKernel dwConv3x3_16x4 = {"dwConv3x3_16x4", layout::block16,
                                             fusesRelu,        ConvInput::floats,
                                             serves16x4,       runDepthwise<Float8, 4>};
constinit const ConvKernel dwConv3x3s1_16x5 = {"dwConv3x3s1_16x5", layout::block16,
                                               fusesRelu,          ConvInput::floats,
                                               serves16x5,         computeImage<Float8, 5, 1>};

}  // namespace TavroRTC::FDModule::x86
