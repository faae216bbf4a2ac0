#pragma once

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

  Tensor* weight = nullptr;  ///< n: output channels, h, w: kernel, c: input channels of a group
  Tensor* bias = nullptr;    ///< one value for each output channel

 protected:
  Conv(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

  /// The number of channel groups, each of which reads its own input channels only.
  virtual int32_t groups() const { return 1; }

  /// True if the tensors fit the parameters: the weight's shape, the bias's length, the output's
  /// shape. Kernels may rely on all of it, so forward refuses a layer for which it doesn't hold.
  bool fitsTensors() const;

  /// The sizes of this convolution, without any data.
  ConvProblem problem() const;
};

}  // namespace TavroRTC::FDModule::core
