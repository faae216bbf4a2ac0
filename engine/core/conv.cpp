#include "engine/core/conv.h"

#include <algorithm>

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Conv::Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row), Window(readWindow(row)) {
  const auto names = ioNames(row);
  if (names.size() >= 3) {
    connectInputs(names.first(2), tensors);
    connectOutput(names[2], tensors);
  } else {
    connectOneToOne(row, tensors);
  }
  const auto constants = findWeights(row, weights);
  if (!constants.empty()) {
    weight = constants[0];
    bias = constants.size() > 1 ? constants[1] : obtainTensor(zeroTensorName, weights);
  }
}

bool Conv::fitsTensors() const {
  if (!isConnected() || weight == nullptr || inputs[0] == outputs[0])
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  const int32_t group = groups();
  return group >= 1 && weight->n >= 1 && weight->n % group == 0 && weight->h == kernelH &&
         weight->w == kernelW && holdsItsShape(input) && holdsItsShape(output) &&
         holdsItsShape(*weight) && input.n == 1 && weight->c == input.c / group &&
         input.c % group == 0 &&
         (bias == nullptr || bias->count() >= static_cast<uint64_t>(weight->n)) && output.n == 1 &&
         output.c == weight->n && WindowOutput{output.h, output.w} == windowOutput(*this, input);
}

bool Conv::reshape(RunEnv* /*env*/) {
  cost = 0;
  if (!isConnected() || weight == nullptr)
    return false;
  const Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  output.n = 1;
  const auto [height, width] = windowOutput(*this, input);
  output.h = height;
  output.w = width;
  output.c = weight->n;
  output.layout = input.layout;
  if (!fitsTensors())
    return false;
  const auto weightCount = static_cast<uint64_t>(weight->n) * static_cast<uint64_t>(weight->h) *
                           static_cast<uint64_t>(weight->w) * static_cast<uint64_t>(weight->c);
  cost = 2 * weightCount * static_cast<uint64_t>(output.h) * static_cast<uint64_t>(output.w);
  return true;
}

std::string Conv::describe() const {
  return isConnected() ? windowLabel(*this, *inputs[0], *outputs[0]) : std::string();
}

ConvProblem Conv::problem() const {
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  ConvProblem problem;
  static_cast<Window&>(problem) = *this;
  problem.group = groups();
  problem.inputH = input.h;
  problem.inputW = input.w;
  problem.inputC = input.c;
  problem.outputH = output.h;
  problem.outputW = output.w;
  problem.outputC = output.c;
  // What a window reaches further than the padding is padding to the kernels.
  problem.padBottom -= std::min(windowRoom(input.h, kernelH, dilationH, padTop + padBottom), 0);
  problem.padRight -= std::min(windowRoom(input.w, kernelW, dilationW, padLeft + padRight), 0);
  return problem;
}

}  // namespace TavroRTC::FDModule::core
