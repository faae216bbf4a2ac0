#pragma once

// ref:: holds operators that need no vector code at all. There is one: core::Reshape only passes
// pointers on, so the class that the registry creates adds nothing to it.

#include "engine/core/shape_layers.h"

namespace TavroRTC::FDModule::ref {

class Reshape : public core::Reshape {
 public:
  Reshape(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), core::Reshape(row, tensors, weights) {}
};

}  // namespace TavroRTC::FDModule::ref
