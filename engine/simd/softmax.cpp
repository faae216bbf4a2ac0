#include "engine/simd/softmax.h"

#include <cmath>
#include <limits>

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::simd {
namespace {

// The larger value's own exponential is exp(0), exactly 1. Only a value that isn't finite needs the
// general form, where the difference of two infinities must come out as what it is.
void softmaxPair(const float* x, float* y) {
  const bool isFirstLarger = x[0] > x[1];
  const float largest = isFirstLarger ? x[0] : x[1];
  const float smaller = std::exp((isFirstLarger ? x[1] : x[0]) - largest);
  const float larger = std::isfinite(largest) ? 1.0F : std::exp(largest - largest);
  const float first = isFirstLarger ? larger : smaller;
  const float second = isFirstLarger ? smaller : larger;
  const float share = 1.0F / (second + first);
  y[0] = share * first;
  y[1] = share * second;
}

void softmaxTriple(const float* x, float* y) {
  const float larger = x[0] > x[1] ? x[0] : x[1];
  const float largest = larger > x[2] ? larger : x[2];
  const float first = std::exp(x[0] - largest);
  const float second = std::exp(x[1] - largest);
  const float third = std::exp(x[2] - largest);
  const float share = 1.0F / ((second + first) + third);
  y[0] = share * first;
  y[1] = share * second;
  y[2] = share * third;
}

void softmaxRow(const float* x, float* y, int32_t count) {
  float largest = std::numeric_limits<float>::min();
  for (int32_t i = 0; i < count; ++i)
    largest = x[i] > largest ? x[i] : largest;
  float sum = 0;
  for (int32_t i = 0; i < count; ++i) {
    y[i] = std::exp(x[i] - largest);
    sum += y[i];
  }
  for (int32_t i = 0; i < count; ++i)
    y[i] /= sum;
}

}  // namespace

bool Softmax::forward(core::RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  if (!core::holdsItsShape(input) || !core::holdsItsShape(output) || output.h != input.h ||
      output.w != input.w || output.c != input.c)
    return false;
  const float* x = input.floatStorage();
  float* y = output.floatStorage();
  if (x == nullptr || y == nullptr)
    return false;
  const int32_t channels = input.c;
  const int64_t rows = static_cast<int64_t>(input.h) * input.w;
  for (int64_t row = 0; row < rows; ++row, x += channels, y += channels) {
    if (channels == 2)
      softmaxPair(x, y);
    else if (channels == 3)
      softmaxTriple(x, y);
    else
      softmaxRow(x, y, channels);
  }
  return true;
}

}  // namespace TavroRTC::FDModule::simd
