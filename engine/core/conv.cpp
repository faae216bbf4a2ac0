#include "engine/core/conv.h"

#include <algorithm>

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {
Conv::Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row),
      kernelW(row.ints[0]),
      kernelH(row.ints[1]),
      padLeft(row.ints[2]),
      padRight(row.ints[3]),
      padTop(row.ints[4]),
      padBottom(row.ints[5]),
      strideW(row.ints[6]),
      strideH(row.ints[7]),
      dilationW(std::max(row.ints[8], 1)),
      dilationH(std::max(row.ints[9], 1)) {
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
  if (!isConnected() || weight == nullptr || inputs[0] == outputs[0] || !areWindowParameters(*this))
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  const int32_t group = groups();
  return group >= 1 && weight->n >= 1 && weight->n % group == 0 && weight->h == kernelH &&
         weight->w == kernelW && holdsItsShape(input) && holdsItsShape(output) &&
         holdsItsShape(*weight) && input.n == 1 && weight->c == input.c / group &&
         input.c % group == 0 &&
         (bias == nullptr || bias->count() >= static_cast<uint64_t>(weight->n)) && output.n == 1 &&
         output.c == weight->n &&
         output.h == windowPositions(input.h, kernelH, dilationH, padTop + padBottom, strideH) &&
         output.w == windowPositions(input.w, kernelW, dilationW, padLeft + padRight, strideW);
}

bool Conv::reshape(RunEnv* /*env*/) {
  cost = 0;
  if (!isConnected() || weight == nullptr || !areWindowParameters(*this))
    return false;
  const Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  output.n = 1;
  output.h = windowPositions(input.h, kernelH, dilationH, padTop + padBottom, strideH);
  output.w = windowPositions(input.w, kernelW, dilationW, padLeft + padRight, strideW);
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
  return windowLabel(*this);
}

ConvProblem Conv::problem() const {
  ConvProblem problem;
  problem.kernelW = kernelW;
  problem.kernelH = kernelH;
  problem.padLeft = padLeft;
  problem.padRight = padRight;
  problem.padTop = padTop;
  problem.padBottom = padBottom;
  problem.strideW = strideW;
  problem.strideH = strideH;
  problem.dilationW = dilationW;
  problem.dilationH = dilationH;
  problem.group = groups();
  problem.inputH = inputs[0]->h;
  problem.inputW = inputs[0]->w;
  problem.inputC = inputs[0]->c;
  problem.outputH = outputs[0]->h;
  problem.outputW = outputs[0]->w;
  problem.outputC = outputs[0]->c;
  return problem;
}

}  // namespace TavroRTC::FDModule::core
