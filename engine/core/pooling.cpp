#include "engine/core/pooling.h"

#include <algorithm>

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Pooling::Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/)
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
  connectOneToOne(row, tensors);
}

bool Pooling::fitsTensors() const {
  if (!isConnected() || inputs[0] == outputs[0])
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  return areWindowParameters(*this) && holdsItsShape(input) && holdsItsShape(output) &&
         input.n == 1 && output.n == 1 && output.c == input.c &&
         output.h == windowPositions(input.h, kernelH, dilationH, padTop + padBottom, strideH) &&
         output.w == windowPositions(input.w, kernelW, dilationW, padLeft + padRight, strideW);
}

bool Pooling::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  const Tensor& input = *inputs[0];
  if (isGlobal()) {
    padLeft = padRight = padTop = padBottom = 0;
    strideW = strideH = dilationW = dilationH = 1;
    kernelW = input.w;
    kernelH = input.h;
  }
  Tensor& output = *outputs[0];
  output.n = 1;
  output.c = input.c;
  output.layout = input.layout;
  const bool sound = areWindowParameters(*this);
  output.h = sound ? windowPositions(input.h, kernelH, dilationH, padTop + padBottom, strideH) : 0;
  output.w = sound ? windowPositions(input.w, kernelW, dilationW, padLeft + padRight, strideW) : 0;
  return fitsTensors();
}

std::string Pooling::describe() const {
  return windowLabel(*this);
}

}  // namespace TavroRTC::FDModule::core
