#pragma once

#include "engine/conv_problem.h"
#include "engine/layer.h"

namespace TavroRTC::FDModule::core {

/// Reduces each window of each channel to its mean or its maximum; the type string decides which.
/// Windows are clipped to the image, so padding doesn't lower a mean.
class Pooling : public virtual Layer, public Window {
 public:
  bool reshape(RunEnv* env) override;
  std::string describe() const override;

 protected:
  Pooling(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

  bool isMean() const { return type == "AveragePool" || isGlobal(); }
  /// True if the output's shape is the one that the parameters give for the input.
  bool fitsTensors() const;

 private:
  bool isGlobal() const { return type == "GlobalAveragePool"; }
};

}  // namespace TavroRTC::FDModule::core
