#pragma once

// Small pieces of shape inference that several operators share.

#include <algorithm>
#include <cstdint>
#include <string>

#include "engine/conv_problem.h"
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

/// The window that a row's first ten parameters describe.
inline Window readWindow(const LayerRow& row) {
  const int32_t(&ints)[16] = row.ints;
  return {.kernelW = ints[0],
          .kernelH = ints[1],
          .padLeft = ints[2],
          .padRight = ints[3],
          .padTop = ints[4],
          .padBottom = ints[5],
          .strideW = ints[6],
          .strideH = ints[7],
          .dilationW = std::max(ints[8], 1),
          .dilationH = std::max(ints[9], 1)};
}

/// How far a window of `kernel` taps, `dilation` apart, can move over `extent` samples with
/// `padding` more; below 0 if it doesn't fit.
inline int32_t windowRoom(int32_t extent, int32_t kernel, int32_t dilation, int32_t padding) {
  return extent + padding - ((kernel - 1) * dilation + 1);
}

/// The height and width of a window's output; 0 where it doesn't fit or makes no sense. A window
/// that lacks less than a stride is taken once, and reaches that much further over the image's end.
struct WindowOutput {
  int32_t height = 0;
  int32_t width = 0;

  friend bool operator==(const WindowOutput&, const WindowOutput&) = default;
};

inline WindowOutput windowOutput(const Window& window, const Tensor& input) {
  // Far from where positions would leave 32 bits.
  constexpr int32_t limit = 1 << 15;
  for (const int32_t value :
       {window.kernelW, window.kernelH, window.padLeft, window.padRight, window.padTop,
        window.padBottom, window.strideW, window.strideH, window.dilationW, window.dilationH})
    if (value < 0 || value > limit)
      return {};
  const auto positions = [](int32_t extent, int32_t kernel, int32_t dilation, int32_t padding,
                            int32_t stride) {
    if (extent < 1 || extent > INT32_MAX / 2 || kernel < 1 || stride < 1)
      return 0;
    const int32_t room = windowRoom(extent, kernel, dilation, padding);
    return room <= -stride ? 0 : room / stride + 1;
  };
  return {positions(input.h, window.kernelH, window.dilationH, window.padTop + window.padBottom,
                    window.strideH),
          positions(input.w, window.kernelW, window.dilationW, window.padLeft + window.padRight,
                    window.strideW)};
}

/// The label of a layer with a window, such as 3x3_s2x2_16x96x96x3: the kernel's height and width,
/// the strides unless the kernel is 1x1, and the output's c, h, w with the input's c.
inline std::string windowLabel(const Window& window, const Tensor& input, const Tensor& output) {
  const auto number = [](int32_t value) { return std::to_string(value); };
  std::string label = number(window.kernelH) + "x" + number(window.kernelW);
  if (window.kernelH != 1 || window.kernelW != 1)
    label += "_s" + number(window.strideH) + "x" + number(window.strideW);
  return label + "_" + number(output.c) + "x" + number(output.h) + "x" + number(output.w) + "x" +
         number(input.c);
}

}  // namespace TavroRTC::FDModule::core
