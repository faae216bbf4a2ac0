#include "engine/simd/conv.h"

#include <cstring>

#include "engine/aligned_memory.h"
#include "engine/cpu_info.h"
#include "engine/simd/activation.h"
#include "engine/simd/conv_kernels.h"
#include "engine/simd/sse_block.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

using P = const ConvProblem&;

// The thresholds differ by processor only where a block of 8 channels is a close call. The last row
// takes everything, whatever limits the kernels above have.
constexpr ConvChoice convChoices[] = {
    {[](P p) { return p.isDilated() && p.outputC % 16 == 0; }, &convSseDilated_8x4,
     &convSseDilated_8x4},
    {[](P p) { return p.isDilated() && p.outputC % 8 == 0; }, &convSseDilated_4x4,
     &convSseDilated_8x4},
    {[](P p) { return p.isDilated() && p.outputC % 4 == 0; }, &convSseDilated_4x4,
     &convSseDilated_4x4},
    {[](P p) { return p.isDilated(); }, &convSseScalar, &convSseScalar},
    {[](P p) { return p.isKernel(3, 3) && p.isStride(2, 2) && p.padLeft == 1 && p.inputC == 3; },
     &convSse3x3s2c3_4x4, &convSse3x3s2c3_4x4},
    {[](P p) { return p.isKernel(3, 3) && p.isStride(2, 2) && p.padLeft == 1 && p.inputC == 1; },
     &convSse3x3s2c1_4x4, &convSse3x3s2c1_4x4},
    {[](P p) { return p.outputC == 1; }, &convSseSingle, &convSseSingle},
    {[](P p) { return p.isKernel(1, 1) && p.outputC >= 16; }, &convSse1x1_8x4, &convSse1x1_8x4},
    {[](P p) { return p.isKernel(1, 1) && p.outputC >= 8; }, &convSse1x1_4x4, &convSse1x1_8x4},
    {[](P p) { return p.isKernel(1, 1) && p.outputC >= 4; }, &convSse1x1_4x4, &convSse1x1_4x4},
    {[](P p) { return p.outputC % 16 == 0; }, &convSseDirect_8x4, &convSseDirect_8x4},
    {[](P p) { return p.outputC % 8 == 0; }, &convSseDirect_4x4, &convSseDirect_8x4},
    {[](P p) { return p.outputC >= 2; }, &convSseDirect_4x4, &convSseDirect_4x4},
    {[](P) { return true; }, &convSseScalar, &convSseScalar},
};

// One output channel of two input channels has its own row, ahead of all others.
constexpr ConvChoice pairToSingle[] = {
    {[](P p) { return p.outputC == 1 && p.inputC == 2; }, &convSseSingle, &convSseSingle},
};

// Gives the kernel the form of the input that it reads. False if there is none.
bool takeInput(Tensor& input, ConvInput reads, ConvProblem& problem) {
  const bool readsFloats = reads != ConvInput::bytes && input.floatData != nullptr;
  problem.input = readsFloats ? input.data(layout::channelsLast) : nullptr;
  const bool readsBytes = reads != ConvInput::floats && input.byteStorageFits();
  problem.bytes = readsBytes ? input.byteData : nullptr;
  problem.byteMean = input.mean[0];
  problem.byteScale = input.scale[0];
  return problem.input != nullptr || problem.bytes != nullptr;
}

}  // namespace

const ConvKernel* selectKernel(std::span<const ConvChoice> choices, const ConvProblem& problem,
                               bool avxAndFma) {
  for (const ConvChoice& choice : choices) {
    const ConvKernel* kernel = avxAndFma ? choice.withAvxAndFma : choice.without;
    if (choice.applies(problem) && kernel->serves(problem))
      return kernel;
  }
  return nullptr;
}

const ConvKernel* selectConvKernel(const ConvProblem& problem, const core::RunEnv& env) {
  if (!env.halfPrecision)
    if (const ConvKernel* kernel = selectKernel(pairToSingle, problem, false))
      return kernel;
  return selectKernel(convChoices, problem, !env.halfPrecision && cpuInfo().hasAvxAndFma());
}

bool runConvKernel(core::Conv& layer, const ConvKernel& kernel, ConvProblem problem) {
  problem.activation = takeFusedActivation(layer, kernel.fuses);
  if (!takeInput(*layer.inputs[0], kernel.reads, problem))
    return false;
  // The weights first: packing them may free their buffer, which a row can name as the bias, too.
  problem.weights =
      layer.weight->floatData != nullptr ? layer.weight->data(kernel.weightLayout) : nullptr;
  if (problem.weights == nullptr)
    return false;
  AlignedBuffer<float> biasCopy;
  if (layer.bias != nullptr) {
    if (layer.bias->floatData == nullptr)
      return false;
    problem.bias = layer.bias->data(layout::channelsLast);
    // Kernels load whole blocks of the bias; behind somebody else's memory there may be nothing.
    if (problem.bias != nullptr && layer.bias->floatBorrowed) {
      biasCopy = paddedBias(problem, problem.outputC);
      problem.bias = biasCopy.get();
    }
    if (problem.bias == nullptr)
      return false;
  }
  Tensor& output = *layer.outputs[0];
  float* values = output.data(layout::channelsLast);
  if (values == nullptr)
    return false;
  // Somebody else's memory lacks the spare bytes that kernels write, or is the input itself.
  AlignedBuffer<float> copy;
  if (output.floatBorrowed)
    copy = allocateAligned<float>(output.count());
  problem.output = output.floatBorrowed ? copy.get() : values;
  if (problem.output == nullptr || !kernel.run(problem))
    return false;
  if (output.floatBorrowed)
    std::memcpy(values, copy.get(), output.count() * sizeof(float));
  return true;
}

bool Conv::forward(core::RunEnv* env) {
  if (!fitsTensors())
    return false;
  const ConvProblem sizes = problem();
  const ConvKernel* kernel = selectConvKernel(sizes, *env);
  return kernel != nullptr && runConvKernel(*this, *kernel, sizes);
}

}  // namespace TavroRTC::FDModule::simd
