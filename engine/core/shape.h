#pragma once

// Small pieces of shape inference that several operators share.

#include <algorithm>
#include <cstdint>
#include <string>

#include "engine/layer.h"
#include "engine/tensor.h"
#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::core {

/// The output's extents and layout become those of the input.
inline void copyShape(const Tensor& input, Tensor& output) {
  output.n = input.n;
  output.h = input.h;
  output.w = input.w;
  output.c = input.c;
  output.layout = input.layout;
}

/// True if all extents are at least 1, their product fits 32 bits and the tensor's storage holds
/// that many elements: then a loop over the extents stays inside of it.
inline bool holdsItsShape(const Tensor& tensor) {
  const auto count =
      packedElementCount({tensor.n, tensor.h, tensor.w, tensor.c}, layout::channelsLast);
  return count && *count >= 1 && *count <= INT32_MAX && tensor.count() >= *count &&
         tensor.storageFits();
}

/// The number of window positions along one direction: how often a window of `kernel` taps,
/// `dilation` apart, fits into `extent` samples with `padding` more, at steps of `stride`.
/// 0 if it doesn't fit or the parameters make no sense.
inline int32_t windowPositions(int32_t extent, int32_t kernel, int32_t dilation, int32_t padding,
                               int32_t stride) {
  if (extent < 1 || kernel < 1 || dilation < 1 || stride < 1)
    return 0;
  const int64_t span = static_cast<int64_t>(kernel - 1) * dilation + 1;
  const int64_t room = static_cast<int64_t>(extent) + padding - span;
  const int64_t positions = room < 0 ? 0 : room / stride + 1;
  return positions > INT32_MAX ? 0 : static_cast<int32_t>(positions);
}

/// True if a window's parameters are far from where positions would leave 32 bits, and not
/// negative.
template <typename WindowLayer>
bool areWindowParameters(const WindowLayer& layer) {
  const int32_t values[] = {layer.kernelW,   layer.kernelH,   layer.padLeft, layer.padRight,
                            layer.padTop,    layer.padBottom, layer.strideW, layer.strideH,
                            layer.dilationW, layer.dilationH};
  return std::ranges::all_of(values,
                             [](int32_t value) { return value >= 0 && value <= (1 << 15); });
}

/// The label of a layer with a window, such as 3x3_s2x2_16x96x96x3: the kernel's height and width,
/// the strides unless the kernel is 1x1, and the output's c, h, w with the input's c.
template <typename WindowLayer>
std::string windowLabel(const WindowLayer& layer) {
  if (layer.inputs.empty() || layer.outputs.empty())
    return {};
  const auto number = [](int32_t value) { return std::to_string(value); };
  const Tensor& output = *layer.outputs[0];
  std::string label = number(layer.kernelH) + "x" + number(layer.kernelW);
  if (layer.kernelH != 1 || layer.kernelW != 1)
    label += "_s" + number(layer.strideH) + "x" + number(layer.strideW);
  return label + "_" + number(output.c) + "x" + number(output.h) + "x" + number(output.w) + "x" +
         number(layer.inputs[0]->c);
}

}  // namespace TavroRTC::FDModule::core
