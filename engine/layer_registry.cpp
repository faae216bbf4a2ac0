#include "engine/layer_registry.h"

#include <array>
#include <iostream>
#include <map>

namespace TavroRTC::FDModule {
namespace {

using Creators = std::map<std::string, LayerCreator>;

// Local to a function, so that it exists before the first static object that registers a layer.
std::array<Creators, environmentKeys>& registry() {
  static std::array<Creators, environmentKeys> creators;
  return creators;
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
