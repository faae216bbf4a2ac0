#pragma once

#include "engine/core/conv.h"

namespace TavroRTC::FDModule::core {

/// A convolution in channel groups: output channel o reads the input channels of its group only.
/// With as many groups as channels, each channel is filtered by itself.
class DepthwiseConv : public Conv {
 public:
  int32_t group = 1;

 protected:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), Conv(row, tensors, weights), group(row.ints[10] == 0 ? 1 : row.ints[10]) {}

  int32_t groups() const override { return group; }
};

}  // namespace TavroRTC::FDModule::core
