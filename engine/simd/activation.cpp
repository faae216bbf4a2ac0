#include "engine/simd/activation.h"

#include <cmath>
#include <cstring>

#include "engine/core/shape.h"
#include "engine/simd/float4.h"

namespace TavroRTC::FDModule::simd {
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
      if (!core::holdsItsShape(input) || slopes->floatData == nullptr ||
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

}  // namespace TavroRTC::FDModule::simd
