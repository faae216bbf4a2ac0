#include "engine/layer.h"

#include <algorithm>
#include <iterator>

#include "engine/aligned_memory.h"

namespace TavroRTC::FDModule {
namespace {

// A list of names ends at the first null or empty one, or where the array does.
std::span<const char* const> usedNames(std::span<const char* const> names) {
  const auto end = std::ranges::find_if(
      names, [](const char* name) { return name == nullptr || *name == '\0'; });
  return names.first(static_cast<size_t>(std::distance(names.begin(), end)));
}

}  // namespace

std::span<const char* const> ioNames(const LayerRow& row) {
  return usedNames(row.io);
}

std::vector<Tensor*> findWeights(const LayerRow& row, TensorMap& weights) {
  std::vector<Tensor*> found;
  for (const char* name : usedNames(row.weights)) {
    const auto entry = weights.find(name);
    if (entry == weights.end())
      break;
    entry->second.name = name;
    found.push_back(&entry->second);
  }
  return found;
}

Tensor* obtainTensor(const char* name, TensorMap& tensors) {
  Tensor& tensor = tensors[name];
  tensor.name = name;
  return &tensor;
}

void Layer::connectInputs(std::span<const char* const> names, TensorMap& tensors) {
  for (const char* tensorName : names) {
    inputs.push_back(obtainTensor(tensorName, tensors));
    inputs.back()->consumers.push_back(this);
  }
}

void Layer::connectOutput(const char* tensorName, TensorMap& tensors) {
  outputs.push_back(obtainTensor(tensorName, tensors));
  outputs.back()->producer = this;
}

void Layer::connectOneToOne(const LayerRow& row, TensorMap& tensors) {
  const auto names = ioNames(row);
  if (names.size() < 2)
    return;
  connectInputs(names.first(1), tensors);
  connectOutput(names[1], tensors);
}

void Layer::connectManyToOne(const LayerRow& row, TensorMap& tensors) {
  const auto names = ioNames(row);
  if (names.empty())
    return;
  connectInputs(names.first(names.size() - 1), tensors);
  connectOutput(names.back(), tensors);
}

}  // namespace TavroRTC::FDModule
