#include "engine/core/pooling.h"

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Pooling::Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/)
    : Layer(row), Window(readWindow(row)) {
  connectOneToOne(row, tensors);
}

bool Pooling::fitsTensors() const {
  if (!isConnected() || inputs[0] == outputs[0])
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  return holdsItsShape(input) && holdsItsShape(output) && input.n == 1 && output.n == 1 &&
         output.c == input.c && WindowOutput{output.h, output.w} == windowOutput(*this, input);
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
  const auto [height, width] = windowOutput(*this, input);
  output.h = height;
  output.w = width;
  return fitsTensors();
}

std::string Pooling::describe() const {
  return isConnected() ? windowLabel(*this, *inputs[0], *outputs[0]) : std::string();
}

}  // namespace TavroRTC::FDModule::core
