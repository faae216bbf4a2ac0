#include "engine/core/elementwise_layers.h"

#include <algorithm>

namespace TavroRTC::FDModule::core {

// --- Activation ---

Activation::Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row), kind(row.ints[0]), clipMax(row.floats[0]), leakSlope(row.floats[0]) {
  connect(row, tensors);
  if (const auto constants = findWeights(row, weights); !constants.empty())
    slopes = constants.front();
}

// An activation that works in place isn't a station of its own in the graph: it follows the layer
// that writes the tensor, and a layer that reads the tensor still reads that layer's output.
void Activation::connect(const LayerRow& row, TensorMap& tensors) {
  const auto names = ioNames(row);
  if (names.size() < 2 || std::string(names[0]) != names[1]) {
    connectOneToOne(row, tensors);
    return;
  }
  Tensor* tensor = obtainTensor(names[0], tensors);
  inputs.push_back(tensor);
  outputs.push_back(tensor);
  if (tensor->producer == nullptr)
    return;
  auto& followers = tensor->producer->successors;
  if (std::ranges::find(followers, this) == followers.end())
    followers.push_back(this);
}

bool Activation::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  outputs[0]->takeShapeOf(*inputs[0]);
  return true;
}

// --- BinaryOp ---

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

// --- Softmax ---

Softmax::Softmax(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/) : Layer(row) {
  connectOneToOne(row, tensors);
}

bool Softmax::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  outputs[0]->takeShapeOf(*inputs[0]);
  return true;
}

}  // namespace TavroRTC::FDModule::core
