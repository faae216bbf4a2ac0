#include "engine/layer_registry.h"

#include <array>
#include <cstddef>
#include <iostream>
#include <map>
#include <memory_resource>
#include <vector>

namespace TavroRTC::FDModule {
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
