#include "engine/core/windowed_layers.h"

#include <algorithm>
#include <string>

namespace TavroRTC::FDModule::core {
namespace {

// The window that a row's first ten parameters describe.
Window readWindow(const LayerRow& row) {
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

// How far a window of `kernel` taps, `dilation` apart, can move over `extent` samples with
// `padding` more; below 0 if it doesn't fit.
int32_t windowRoom(int32_t extent, int32_t kernel, int32_t dilation, int32_t padding) {
  return extent + padding - ((kernel - 1) * dilation + 1);
}

// The height and width of a window's output; 0 where it doesn't fit or makes no sense. A window
// that lacks less than a stride is taken once, and reaches that much further over the image's end.
struct WindowOutput {
  int32_t height = 0;
  int32_t width = 0;

  friend bool operator==(const WindowOutput&, const WindowOutput&) = default;
};

WindowOutput windowOutput(const Window& window, const Tensor& input) {
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

// The label of a layer with a window, such as 3x3_s2x2_16x96x96x3: the kernel's height and width,
// the strides unless the kernel is 1x1, and the output's c, h, w with the input's c.
std::string windowLabel(const Window& window, const Tensor& input, const Tensor& output) {
  const auto number = [](int32_t value) { return std::to_string(value); };
  std::string label = number(window.kernelH) + "x" + number(window.kernelW);
  if (window.kernelH != 1 || window.kernelW != 1)
    label += "_s" + number(window.strideH) + "x" + number(window.strideW);
  return label + "_" + number(output.c) + "x" + number(output.h) + "x" + number(output.w) + "x" +
         number(input.c);
}

}  // namespace

// --- Conv, DepthwiseConv ---

Conv::Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
    : Layer(row), Window(readWindow(row)) {
  const auto names = ioNames(row);
  if (names.size() >= 3) {
    connectInputs(names.first(2), tensors);
    connectOutput(names[2], tensors);
  } else {
    connectOneToOne(row, tensors);
  }
  const auto constants = findWeights(row, weights);
  if (!constants.empty()) {
    weight = constants[0];
    bias = constants.size() > 1 ? constants[1] : obtainTensor(zeroTensorName, weights);
  }
}

bool Conv::fitsTensors() const {
  if (!isConnected() || weight == nullptr || inputs[0] == outputs[0])
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  const int32_t group = groups();
  return group >= 1 && weight->n >= 1 && weight->n % group == 0 && weight->h == kernelH &&
         weight->w == kernelW && input.holdsItsShape() && output.holdsItsShape() &&
         weight->holdsItsShape() && input.n == 1 && weight->c == input.c / group &&
         input.c % group == 0 &&
         (bias == nullptr || bias->count() >= static_cast<uint64_t>(weight->n)) && output.n == 1 &&
         output.c == weight->n && WindowOutput{output.h, output.w} == windowOutput(*this, input);
}

bool Conv::reshape(RunEnv* /*env*/) {
  cost = 0;
  if (!isConnected() || weight == nullptr)
    return false;
  const Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  output.n = 1;
  const auto [height, width] = windowOutput(*this, input);
  output.h = height;
  output.w = width;
  output.c = weight->n;
  output.layout = input.layout;
  if (!fitsTensors())
    return false;
  const auto weightCount = static_cast<uint64_t>(weight->n) * static_cast<uint64_t>(weight->h) *
                           static_cast<uint64_t>(weight->w) * static_cast<uint64_t>(weight->c);
  cost = 2 * weightCount * static_cast<uint64_t>(output.h) * static_cast<uint64_t>(output.w);
  return true;
}

std::string Conv::describe() const {
  return isConnected() ? windowLabel(*this, *inputs[0], *outputs[0]) : std::string();
}

ConvProblem Conv::problem() const {
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  ConvProblem problem;
  static_cast<Window&>(problem) = *this;
  problem.group = groups();
  problem.inputH = input.h;
  problem.inputW = input.w;
  problem.inputC = input.c;
  problem.outputH = output.h;
  problem.outputW = output.w;
  problem.outputC = output.c;
  // What a window reaches further than the padding is padding to the kernels.
  problem.padBottom -= std::min(windowRoom(input.h, kernelH, dilationH, padTop + padBottom), 0);
  problem.padRight -= std::min(windowRoom(input.w, kernelW, dilationW, padLeft + padRight), 0);
  return problem;
}

ConvProblem DepthwiseConv::problem() const {
  ConvProblem problem = Conv::problem();
  if (group == problem.outputC)
    problem.dilationH = problem.dilationW = 1;
  return problem;
}

// --- Pooling ---

Pooling::Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/)
    : Layer(row), Window(readWindow(row)) {
  connectOneToOne(row, tensors);
}

bool Pooling::fitsTensors() const {
  if (!isConnected() || inputs[0] == outputs[0])
    return false;
  const Tensor& input = *inputs[0];
  const Tensor& output = *outputs[0];
  return input.holdsItsShape() && output.holdsItsShape() && input.n == 1 && output.n == 1 &&
         output.c == input.c && WindowOutput{output.h, output.w} == windowOutput(*this, input);
}

bool Pooling::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  const Tensor& input = *inputs[0];
  if (isGlobal()) {
    padLeft = padRight = padTop = padBottom = 0;
    strideW = strideH = dilationW = dilationH = 1;
    kernelW = input.w;
    kernelH = input.h;
  }
  Tensor& output = *outputs[0];
  output.n = 1;
  output.c = input.c;
  output.layout = input.layout;
  const auto [height, width] = windowOutput(*this, input);
  output.h = height;
  output.w = width;
  return fitsTensors();
}

std::string Pooling::describe() const {
  return isConnected() ? windowLabel(*this, *inputs[0], *outputs[0]) : std::string();
}

}  // namespace TavroRTC::FDModule::core
