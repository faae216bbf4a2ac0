#include "engine/simd/binary_op.h"

#include <algorithm>

#include "engine/core/shape.h"
#include "engine/simd/activation.h"
#include "engine/simd/float4.h"

namespace TavroRTC::FDModule::simd {
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

uint64_t pixelCount(const Tensor& tensor) {
  return static_cast<uint64_t>(tensor.h) * static_cast<uint64_t>(tensor.w);
}

template <typename Operation>
void apply(const Tensor& a, const Tensor& b, Tensor& output, Operation operation) {
  if (a.h == b.h && a.w == b.w && a.c == b.c)
    sameShape(a.floatData, b.floatData, output.floatData,
              pixelCount(a) * static_cast<uint64_t>(a.c), operation);
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
  if (!core::holdsItsShape(a) || !core::holdsItsShape(b) || !core::holdsItsShape(output) ||
      output.h != std::max(a.h, b.h) || output.w != std::max(a.w, b.w) ||
      output.c != std::max(a.c, b.c) || a.n != 1 || b.n != 1 || output.n != 1)
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

}  // namespace TavroRTC::FDModule::simd
