#pragma once

// ConvProblem: one convolution as its kernels see it: sizes and plain pointers, no layer and no
// tensor. ConvKernel: one kernel as the selection sees it. Every convolution kernel, of 128 or 256
// bits, dense or depthwise, is a function of a ConvProblem.

#include <cstdint>

namespace TavroRTC::FDModule {

namespace core {

/// The functions an activation layer can apply; any other code is the identity.
enum class ActivationKind : int32_t {
  relu = 1,         ///< max(0, x)
  clippedRelu = 2,  ///< max(0, min(clipMax, x))
  prelu = 3,        ///< x, times the channel's slope below zero
  tanh = 4,
  sigmoid = 5,    ///< 1 / (exp(-x) + 1)
  leakyRelu = 6,  ///< min(x, 0) * leakSlope + max(x, 0)
};

}  // namespace core

/// The activation that a kernel applies to each sum before it stores it.
struct FusedActivation {
  int32_t kind = 0;  ///< a core::ActivationKind, or 0 for none
  float clipMax = 0;
  float leakSlope = 0;
};

/// A window that moves over an image.
struct Window {
  int32_t kernelW = 1, kernelH = 1;
  int32_t padLeft = 0;    ///< zero columns before the image
  int32_t padRight = 0;   ///< zero columns behind it
  int32_t padTop = 0;     ///< zero rows above it
  int32_t padBottom = 0;  ///< zero rows below it
  int32_t strideW = 1, strideH = 1;
  int32_t dilationW = 1, dilationH = 1;  ///< from one tap to the next
};

struct ConvProblem : Window {
  int32_t group = 1;
  int32_t inputH = 0, inputW = 0, inputC = 0;
  int32_t outputH = 0, outputW = 0, outputC = 0;

  const float* input = nullptr;    ///< h, w, c; null if there are only bytes
  const uint8_t* bytes = nullptr;  ///< h, w, c, for the kernels that read a picture
  float byteMean = 0;              ///< a byte b stands for (b - byteMean) * byteScale
  float byteScale = 1;
  const float* weights = nullptr;  ///< in the layout that the kernel names
  const float* bias = nullptr;     ///< outputC values, with readable memory behind; null: zeros
  float* output = nullptr;         ///< h, w, c, with 64 bytes behind that may be written
  FusedActivation activation;

  // Always inlined: files for different instruction sets would each offer a copy to the linker.
  [[gnu::always_inline]] bool isKernel(int32_t height, int32_t width) const {
    return kernelH == height && kernelW == width;
  }
  [[gnu::always_inline]] bool isStride(int32_t height, int32_t width) const {
    return strideH == height && strideW == width;
  }
  [[gnu::always_inline]] bool isDilated() const { return dilationH > 1 || dilationW > 1; }
  [[gnu::always_inline]] bool isPadded() const {
    return padLeft != 0 || padRight != 0 || padTop != 0 || padBottom != 0;
  }
};

/// Bit `kind` set: the kernel can apply that activation itself.
using ActivationKinds = uint32_t;
consteval ActivationKinds kindBit(core::ActivationKind kind) {
  return 1U << static_cast<uint32_t>(kind);
}
inline constexpr ActivationKinds fusesNone = 0;
inline constexpr ActivationKinds fusesRelu = kindBit(core::ActivationKind::relu);
inline constexpr ActivationKinds fusesReluFamily = fusesRelu |
                                                   kindBit(core::ActivationKind::clippedRelu) |
                                                   kindBit(core::ActivationKind::leakyRelu);

/// What a kernel takes as its input.
enum class ConvInput : uint8_t {
  floats,         ///< the float data
  bytes,          ///< the picture's bytes only
  floatsOrBytes,  ///< the float data, or the bytes if there is none
};

/// Computes the output. False, with the output as it was, if there is no memory for scratch.
using ConvRun = bool(const ConvProblem& problem);

struct ConvKernel {
  const char* name;
  int32_t weightLayout;
  ActivationKinds fuses;
  ConvInput reads;
  /// True if the kernel is right for these sizes; the selection passes over one that doesn't serve.
  bool (*serves)(const ConvProblem& problem);
  ConvRun* run;
};

}  // namespace TavroRTC::FDModule
