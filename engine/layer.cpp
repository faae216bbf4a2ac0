#include "engine/layer.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <memory_resource>

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

// --- The registry ---

namespace {

using Creators = std::pmr::map<std::string, LayerCreator>;

// Layers are registered while the module is being loaded, where nobody could catch an exception:
// the entries of the few types that there are lie here and not on the heap.
struct Registry {
  std::array<std::byte, 4096> room;
  std::pmr::monotonic_buffer_resource memory{room.data(), room.size()};
  std::pmr::vector<Creators> creators{environmentKeys, &memory};  // which hands it on to the maps
};

// Local to a function, so that it exists before the first static object that registers a layer.
std::pmr::vector<Creators>& registry() {
  static Registry registry;
  return registry.creators;
}

bool isKey(int32_t key) {
  return key >= 0 && key < environmentKeys;
}

}  // namespace

void registerLayer(int32_t key, const std::string& type, LayerCreator creator) {
  if (!isKey(key))
    return;
  Creators& creators = registry()[static_cast<size_t>(key)];
  if (creators.contains(type))
    std::cout << "Layer type " << type << " already registered." << std::endl;
  creators[type] = creator;
}

Layer* createLayer(int32_t key, const LayerRow& row, TensorMap& tensors, TensorMap& weights) {
  const char* type = row.type != nullptr ? row.type : "";
  if (isKey(key) && row.name != nullptr) {
    const Creators& creators = registry()[static_cast<size_t>(key)];
    if (const auto entry = creators.find(type); entry != creators.end())
      return entry->second(row, tensors, weights);
  }
  std::cout << "Implementation not exists: [" << key << "," << type << "]" << std::endl;
  return nullptr;
}

}  // namespace TavroRTC::FDModule
