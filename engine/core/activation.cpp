#include "engine/core/activation.h"

#include <algorithm>

#include "engine/core/shape.h"

namespace TavroRTC::FDModule::core {

Activation::Activation(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row), kind(row.ints[0]), clipMax(row.floats[0]), leakSlope(row.floats[0]) {
  connect(row, tensors);
  if (const auto constants = findWeights(row, weights); !constants.empty())
    slopes = constants.front();
}

// An activation that works in place isn't a station of its own in the graph: it follows the layer
// that writes the tensor, and whoever reads the tensor still reads that layer's output.
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
  copyShape(*inputs[0], *outputs[0]);
  return true;
}

}  // namespace TavroRTC::FDModule::core
