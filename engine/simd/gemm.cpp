// Two sets of kernels, one for processors with AVX and FMA. Neither uses wider vectors or fused
// operations; they differ in how many sums run side by side, and so in the order of the terms.

#include "engine/simd/layers.h"

#include "engine/cpu_info.h"
#include "engine/run_env.h"
#include "engine/simd/vectors.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::simd {
namespace {

constexpr int lanes = Float4::lanes;

void lanesOf(Float4 vector, float (&values)[lanes]) {
  vector.store(values);
}

// One accumulator; lane 0 comes first in the final sum, the tail second.
float dotProductWide(const float* a, const float* b, int32_t count, float bias) {
  Float4 sum = Float4::zero();
  int32_t i = 0;
  for (; i + lanes <= count; i += lanes)
    sum = sum + Float4::load(a + i) * Float4::load(b + i);
  float tail = bias;
  for (; i < count; ++i)
    tail += a[i] * b[i];
  float values[lanes];
  lanesOf(sum, values);
  return ((values[0] + tail) + values[1]) + values[2] + values[3];
}

// Two accumulators, whose lanes are added to the tail one after the other.
float dotProductNarrow(const float* a, const float* b, int32_t count, float bias) {
  Float4 sums[2] = {Float4::zero(), Float4::zero()};
  int32_t i = 0;
  for (; i + 2 * lanes <= count; i += 2 * lanes)
    for (int v = 0; v < 2; ++v)
      sums[v] = sums[v] + Float4::load(a + i + v * lanes) * Float4::load(b + i + v * lanes);
  float total = bias;
  for (; i < count; ++i)
    total += a[i] * b[i];
  for (const Float4 sum : sums) {
    float values[lanes];
    lanesOf(sum, values);
    for (const float value : values)
      total += value;
  }
  return total;
}

// A block of columns: for each row of the matrix, one value of the input times the row's vectors.
template <int vectors>
void columnBlock(const float* input, const float* matrix, const float* bias, float* output,
                 int32_t rows, int32_t columns) {
  Float4 sums[vectors];
  for (int v = 0; v < vectors; ++v)
    sums[v] = bias != nullptr ? Float4::load(bias + v * lanes) : Float4::zero();
  for (int32_t k = 0; k < rows; ++k, matrix += columns) {
    const Float4 value = Float4::broadcast(input + k);
    for (int v = 0; v < vectors; ++v)
      sums[v] = sums[v] + value * Float4::load(matrix + v * lanes);
  }
  for (int v = 0; v < vectors; ++v)
    sums[v].store(output + v * lanes);
}

template <int vectors>
void columnSums(const float* input, const float* matrix, const float* bias, float* output,
                int32_t rows, int32_t columns) {
  constexpr int32_t block = vectors * lanes;
  int32_t column = 0;
  for (; column + block <= columns; column += block)
    columnBlock<vectors>(input, matrix + column, bias != nullptr ? bias + column : nullptr,
                         output + column, rows, columns);
  for (; column < columns; ++column) {
    float sum = bias != nullptr ? bias[column] : 0.0F;
    for (int32_t k = 0; k < rows; ++k)
      sum += input[k] * matrix[static_cast<int64_t>(k) * columns + column];
    output[column] = sum;
  }
}

struct Kernels {
  float (*dotProduct)(const float* a, const float* b, int32_t count, float bias);
  void (*columnSums)(const float* input, const float* matrix, const float* bias, float* output,
                     int32_t rows, int32_t columns);
};
constexpr Kernels wideKernels = {dotProductWide, columnSums<2>};
constexpr Kernels narrowKernels = {dotProductNarrow, columnSums<4>};

}  // namespace

bool Gemm::forward(core::RunEnv* env) {
  if (!fitsTensors() || (transA != 0 && sizes.m != 1))
    return false;
  const float* input = inputs[0]->data(layout::channelsLast);
  float* output = outputs[0]->data(layout::channelsLast);
  const float* values = matrix->floatData;
  const float* biases = bias != nullptr ? bias->floatData : nullptr;
  // Again: a tensor that had to be repacked now has as many values as its extents tell, and they
  // may have changed since the sizes were found.
  if (input == nullptr || output == nullptr || values == nullptr || !fitsTensors())
    return false;
  const bool isWide = !env->halfPrecision && cpuInfo().runsAvxAndFma();
  const Kernels& kernels = isWide ? wideKernels : narrowKernels;
  const auto [m, k, n] = sizes;
  const auto biasAt = [biases](int32_t i) { return biases != nullptr ? biases[i] : 0.0F; };
  if (n == 1 && transA == 0) {
    for (int32_t row = 0; row < m; ++row)
      output[row] =
          kernels.dotProduct(input + static_cast<int64_t>(row) * k, values, k, biasAt(row));
  } else if (transB == 0) {
    kernels.columnSums(input, values, biases, output, k, n);
  } else {
    for (int32_t row = 0; row < n; ++row)
      output[row] =
          kernels.dotProduct(values + static_cast<int64_t>(row) * k, input, k, biasAt(row));
  }
  return true;
}

}  // namespace TavroRTC::FDModule::simd
