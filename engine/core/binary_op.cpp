#include "engine/core/binary_op.h"

#include <algorithm>

namespace TavroRTC::FDModule::core {

BinaryOp::BinaryOp(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row), op(row.ints[0]) {
  if (type == "Mul")
    op = static_cast<int32_t>(BinaryOperation::multiply);
  connectManyToOne(row, tensors);
  const auto constants = findWeights(row, weights);
  inputs.insert(inputs.end(), constants.begin(), constants.end());
}

bool BinaryOp::reshape(RunEnv* /*env*/) {
  if (!isConnected(2))
    return false;
  const Tensor& a = *inputs[0];
  const Tensor& b = *inputs[1];
  Tensor& output = *outputs[0];
  output.n = a.n;
  output.h = std::max(a.h, b.h);
  output.w = std::max(a.w, b.w);
  output.c = std::max(a.c, b.c);
  output.layout = a.layout;
  return true;
}

}  // namespace TavroRTC::FDModule::core
