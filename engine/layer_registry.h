#pragma once

// The registry of layer creators: eight maps, one for each key of a run environment, from a type
// string to the function that makes a layer of that type. It is filled while the module is loaded
// and only read after that.

#include <cstdint>
#include <string>

#include "engine/layer.h"

namespace TavroRTC::FDModule {

inline constexpr int32_t environmentKeys = 8;

using LayerCreator = Layer* (*)(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

/// Records the creator of a type. A second one replaces the first, with a message on the standard
/// output. A key outside 0 to 7 is ignored.
void registerLayer(int32_t key, const std::string& type, LayerCreator creator);

/// Makes the layer of a row, owned by the caller, or gives null with a message on the standard
/// output if nobody has registered its type under this key.
Layer* createLayer(int32_t key, const LayerRow& row, TensorMap& tensors, TensorMap& weights);

/// The creator of any class with the usual constructor.
template <typename LayerClass>
Layer* makeLayer(const LayerRow& row, TensorMap& tensors, TensorMap& weights) {
  return new LayerClass(row, tensors, weights);
}

}  // namespace TavroRTC::FDModule
