#include "engine/simd/layers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "engine/simd/vectors.h"

namespace TavroRTC::FDModule::simd {
namespace {

Float4 activate(Float4 x, const FusedActivation& activation) {
  withActivation<Float4>(activation, [&x](auto function) { x = function(x); });
  return x;
}

float activate(float x, const FusedActivation& activation) {
  return _mm_cvtss_f32(activate(Float4{_mm_set_ss(x)}, activation).value);
}

}  // namespace

// --- Activation ---

namespace {

void mapValues(const float* input, float* output, uint64_t count,
               const FusedActivation& activation) {
  uint64_t i = 0;
  for (; i + Float4::lanes <= count; i += Float4::lanes)
    activate(Float4::load(input + i), activation).store(output + i);
  for (; i < count; ++i)
    output[i] = activate(input[i], activation);
}

void prelu(const Tensor& input, const float* slopes, const float* values, float* output) {
  const uint64_t count = input.count();
  const auto channels = static_cast<uint64_t>(input.c);
  for (uint64_t i = 0; i < count; ++i)
    output[i] = 0.0F > values[i] ? values[i] * slopes[i % channels] : values[i];
}

template <typename Function>
void mapValues(const float* input, float* output, uint64_t count, Function function) {
  for (uint64_t i = 0; i < count; ++i)
    output[i] = function(input[i]);
}

float sigmoid(float x) {
  return 1.0F / (std::exp(-x) + 1.0F);
}

}  // namespace

bool Activation::forward(core::RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  if (&input == &output && fused) {
    fused = false;
    return true;
  }
  const float* values = input.floatStorage();
  float* results = output.floatStorage();
  if (values == nullptr || results == nullptr || output.count() < input.count())
    return false;
  const uint64_t count = input.count();
  using enum core::ActivationKind;
  switch (static_cast<core::ActivationKind>(kind)) {
    case relu:
    case clippedRelu:
    case leakyRelu:
      mapValues(values, results, count, FusedActivation{kind, clipMax, leakSlope});
      break;
    case core::ActivationKind::prelu:
      if (slopes == nullptr)
        break;
      if (!input.holdsItsShape() || slopes->floatData == nullptr ||
          slopes->count() < static_cast<uint64_t>(input.c) || !slopes->storageFits())
        return false;
      simd::prelu(input, slopes->floatData, values, results);
      break;
    case core::ActivationKind::tanh:
      mapValues(values, results, count, [](float x) { return std::tanh(x); });
      break;
    case core::ActivationKind::sigmoid:
      mapValues(values, results, count, simd::sigmoid);
      break;
    default:
      std::memmove(results, values, count * sizeof(float));
  }
  return true;
}

FusedActivation takeFusedActivation(const Layer& layer, ActivationKinds kinds) {
  if (layer.successors.empty())
    return {};
  auto* activation = dynamic_cast<Activation*>(layer.successors.front());
  if (activation == nullptr)
    return {};
  const int32_t kind = activation->kind;
  activation->fused = kind >= 0 && kind < 32 && (kinds >> kind & 1U) != 0;
  if (!activation->fused)
    return {};
  return {kind, activation->clipMax, activation->leakSlope};
}

// --- BinaryOp ---

namespace {

// What the operation does with two values or vectors of values; the sum takes an activation along.
struct Sum {
  FusedActivation activation;
  template <typename Value>
  Value operator()(Value a, Value b) const {
    return activate(a + b, activation);
  }
};

struct Product {
  template <typename Value>
  Value operator()(Value a, Value b) const {
    return a * b;
  }
};

template <typename Operation>
void sameShape(const float* a, const float* b, float* output, uint64_t count, Operation operation) {
  constexpr uint64_t step = 4 * Float4::lanes;
  uint64_t i = 0;
  for (; i + step <= count; i += step)
    for (uint64_t at = i; at < i + step; at += Float4::lanes)
      operation(Float4::load(a + at), Float4::load(b + at)).store(output + at);
  for (; i < count; ++i)
    output[i] = operation(a[i], b[i]);
}

// One input as the output's coordinates see it: an extent that is too short repeats its last value,
// which for an extent of 1 is the broadcast.
struct Operand {
  const Tensor& tensor;
  const float* values;

  float at(int32_t y, int32_t x, int32_t channel) const {
    const auto row = static_cast<int64_t>(std::min(y, tensor.h - 1));
    const auto column = static_cast<int64_t>(std::min(x, tensor.w - 1));
    return values[(row * tensor.w + column) * tensor.c + std::min(channel, tensor.c - 1)];
  }
};

template <typename Operation>
void broadcast(const Operand& a, const Operand& b, const Tensor& shape, float* output,
               Operation operation) {
  for (int32_t y = 0; y < shape.h; ++y)
    for (int32_t x = 0; x < shape.w; ++x)
      for (int32_t channel = 0; channel < shape.c; ++channel)
        *output++ = operation(a.at(y, x, channel), b.at(y, x, channel));
}

template <typename Operation>
void apply(const Tensor& a, const Tensor& b, Tensor& output, Operation operation) {
  // n isn't looked at: equal images are added up as far as all three tensors go, and of others the
  // first ones.
  if (a.h == b.h && a.w == b.w && a.c == b.c)
    sameShape(a.floatData, b.floatData, output.floatData,
              std::min({a.count(), b.count(), output.count()}), operation);
  else
    broadcast({a, a.floatData}, {b, b.floatData}, output, output.floatData, operation);
}

}  // namespace

bool BinaryOp::forward(core::RunEnv* /*env*/) {
  if (!isConnected(2))
    return false;
  Tensor& a = *inputs[0];
  Tensor& b = *inputs[1];
  Tensor& output = *outputs[0];
  if (!a.holdsItsShape() || !b.holdsItsShape() || !output.holdsItsShape() ||
      output.h != std::max(a.h, b.h) || output.w != std::max(a.w, b.w) ||
      output.c != std::max(a.c, b.c))
    return false;
  if (a.floatStorage() == nullptr || b.floatStorage() == nullptr ||
      output.floatStorage() == nullptr)
    return false;
  switch (static_cast<core::BinaryOperation>(op)) {
    case core::BinaryOperation::add:
      apply(a, b, output, Sum{takeFusedActivation(*this, fusesReluFamily)});
      return true;
    case core::BinaryOperation::multiply:
      apply(a, b, output, Product{});
      return true;
    default:
      return false;
  }
}

// --- Softmax ---

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

// Looks odd, is meant: the search for the largest value begins at the smallest positive number, so
// where all are below 0, that one is subtracted.
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
  if (!input.holdsItsShape() || !output.holdsItsShape() || output.h != input.h ||
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
