#include "engine/simd/layers.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

#include "engine/aligned_memory.h"
#include "engine/simd/conv_kernels.h"
#include "engine/simd/conv_selection.h"
#include "engine/simd/conv_zones.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {

// --- Conv, DepthwiseConv ---

namespace {

// Hands the kernel the input in the form that it reads. False if there is none.
bool takeInput(Tensor& input, ConvInput reads, ConvProblem& problem) {
  const bool readsFloats = reads != ConvInput::bytes && input.floatData != nullptr;
  problem.input = readsFloats ? input.data(layout::channelsLast) : nullptr;
  const bool readsBytes = reads != ConvInput::floats && input.byteStorageFits();
  problem.bytes = readsBytes ? input.byteData : nullptr;
  problem.byteMean = input.mean[0];
  problem.byteScale = input.scale[0];
  return problem.input != nullptr || problem.bytes != nullptr;
}

bool runKernel(core::Conv& layer, const ConvKernel& kernel, ConvRun* run) {
  ConvProblem problem = layer.problem();
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
  if (problem.output == nullptr || !run(problem))
    return false;
  if (output.floatBorrowed)
    std::memcpy(values, copy.get(), output.count() * sizeof(float));
  return true;
}

}  // namespace

const ConvKernel* kernelOf(const core::Conv& layer, KernelSelection select,
                           const core::RunEnv& env) {
  if (!layer.fitsTensors())
    return nullptr;
  ConvProblem problem = layer.problem();
  const Tensor& input = *layer.inputs[0];
  problem.bytes = input.byteStorageFits() ? input.byteData : nullptr;
  return select(problem, env);
}

bool forwardConv(core::Conv& layer, KernelSelection select, const core::RunEnv& env,
                 RunChoice choose) {
  const ConvKernel* kernel = kernelOf(layer, select, env);
  return kernel != nullptr && runKernel(layer, *kernel, choose(*kernel));
}

bool Conv::forward(core::RunEnv* env) {
  return forwardConv(*this, selectConvKernel, *env);
}

bool DepthwiseConv::forward(core::RunEnv* env) {
  return forwardConv(*this, selectDepthwiseKernel, *env);
}

// --- Pooling ---

namespace {

// A window as one output pixel sees it: its first tap inside the image, how many taps there are,
// and how far apart they lie.
struct Taps {
  const float* first;
  int32_t rows;
  int32_t columns;
  ptrdiff_t rowStride;
  ptrdiff_t columnStride;
};

Float4 load(const float* address, Float4 /*type*/) {
  return Float4::load(address);
}
float load(const float* address, float /*type*/) {
  return *address;
}
void store(float* address, Float4 value) {
  value.store(address);
}
void store(float* address, float value) {
  *address = value;
}
Float4 broadcast(float number, Float4 /*type*/) {
  return Float4::all(number);
}
float broadcast(float number, float /*type*/) {
  return number;
}
float larger(float a, float b) {
  return a > b ? a : b;
}

// One channel, or four at a time: the window's values in the order of the image.
template <typename Value>
Value mean(const Taps& window, ptrdiff_t channel) {
  Value sum = broadcast(0.0F, Value{});
  for (int32_t row = 0; row < window.rows; ++row)
    for (int32_t column = 0; column < window.columns; ++column)
      sum =
          sum + load(window.first + row * window.rowStride + column * window.columnStride + channel,
                     Value{});
  return sum * broadcast(1.0F / static_cast<float>(window.rows * window.columns), Value{});
}

template <typename Value>
Value maximum(const Taps& window, ptrdiff_t channel) {
  Value largest = broadcast(std::numeric_limits<float>::lowest(), Value{});
  for (int32_t row = 0; row < window.rows; ++row)
    for (int32_t column = 0; column < window.columns; ++column)
      largest = larger(
          load(window.first + row * window.rowStride + column * window.columnStride + channel,
               Value{}),
          largest);
  return largest;
}

template <typename Value>
void reduceChannels(const Taps& window, float* output, int32_t channels, bool isMean) {
  constexpr int32_t lanes = std::is_same_v<Value, Float4> ? Float4::lanes : 1;
  for (int32_t channel = 0; channel < channels; channel += lanes)
    store(output + channel,
          isMean ? mean<Value>(window, channel) : maximum<Value>(window, channel));
}

}  // namespace

// Four channels at a time where that leaves none over.
bool Pooling::forward(core::RunEnv* /*env*/) {
  if (!fitsTensors())
    return false;
  Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  const float* values = input.data(layout::channelsLast);
  float* results = output.data(layout::channelsLast);
  if (values == nullptr || results == nullptr)
    return false;
  const ptrdiff_t channels = input.c;
  const auto reduce =
      channels % Float4::lanes == 0 ? reduceChannels<Float4> : reduceChannels<float>;
  for (int32_t y = 0; y < output.h; ++y) {
    const int32_t top = y * strideH - padTop;
    const TapRange rows = tapsInside(top, input.h, kernelH, dilationH);
    for (int32_t x = 0; x < output.w; ++x, results += channels) {
      const int32_t left = x * strideW - padLeft;
      const TapRange columns = tapsInside(left, input.w, kernelW, dilationW);
      const ptrdiff_t firstRow = top + rows.begin * dilationH;
      const ptrdiff_t firstColumn = left + columns.begin * dilationW;
      // A window in the padding alone has no taps; its mean or maximum is taken over nothing.
      const Taps window = {values + (firstRow * input.w + firstColumn) * channels,
                           std::max(rows.end - rows.begin, 0),
                           std::max(columns.end - columns.begin, 0), channels * dilationH * input.w,
                           channels * dilationW};
      reduce(window, results, input.c, isMean());
    }
  }
  return true;
}

}  // namespace TavroRTC::FDModule::simd
