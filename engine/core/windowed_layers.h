#pragma once

// The layers that move a window over an image: the convolutions and the pooling. Their sizes follow
// from the window, the padding and the input.

#include "engine/conv_problem.h"
#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// A two-dimensional convolution: out[y][x][o] = bias[o] + the sum over ky, kx, c of
/// in[y * strideH - padTop + ky * dilationH][x * strideW - padLeft + kx * dilationW][c]
/// * weight[o][ky][kx][c], where positions outside the image count as zero.
class Conv : public virtual Layer, public Window {
 public:
  bool isPointwise() const override { return kernelW == 1 && kernelH == 1; }
  bool reshape(RunEnv* env) override;
  std::string describe() const override;

  /// True if the tensors fit the parameters: the weight's shape, the bias's length, the output's
  /// shape. Kernels may rely on all of it, so forward refuses a layer for which it doesn't hold.
  bool fitsTensors() const;

  /// The sizes of this convolution as its kernels see them, without any data.
  virtual ConvProblem problem() const;

  Tensor* weight = nullptr;  ///< n: output channels, h, w: kernel, c: input channels of a group
  Tensor* bias = nullptr;    ///< one value for each output channel

 protected:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

  /// The number of channel groups, each of which reads its own input channels only.
  virtual int32_t groups() const { return 1; }
};

/// A convolution in channel groups: output channel o reads the input channels of its group only.
/// With as many groups as output channels, each channel is filtered by itself, and the dilations
/// only decide the output's size: the filter's taps lie side by side.
class DepthwiseConv : public Conv {
 public:
  ConvProblem problem() const override;

  int32_t group = 1;

 protected:
  DepthwiseConv(const LayerRow& row, TensorMap& tensors, TensorMap& weights)
      : Layer(row), Conv(row, tensors, weights), group(row.ints[10] == 0 ? 1 : row.ints[10]) {}

  int32_t groups() const override { return group; }
};

/// Reduces each window of each channel to its mean or its maximum; the type string decides which.
/// Windows are clipped to the image, so padding doesn't lower a mean.
class Pooling : public virtual Layer, public Window {
 public:
  bool reshape(RunEnv* env) override;
  std::string describe() const override;

 protected:
  Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

  bool isMean() const { return type == "AveragePool" || isGlobal(); }
  /// True if the output's shape is the one that follows from the parameters and the input.
  bool fitsTensors() const;

 private:
  bool isGlobal() const { return type == "GlobalAveragePool"; }
};

}  // namespace TavroRTC::FDModule::core
