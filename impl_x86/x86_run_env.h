#pragma once

// impl_x86 is the engine on this kind of machine: the environment that names the layer classes and
// rewrites the graph, the x86:: classes that try the 256-bit kernels before the 128-bit ones, those
// kernels, and their wider twins (twins.h).

#include "engine/run_env.h"

namespace TavroRTC::FDModule::x86 {

/// The key under which this environment's layers are registered (x86_layers.cpp).
inline constexpr int32_t registryKey = 2;

class RunEnv : public core::RunEnv {
 public:
  /// Prints what the processor offers.
  RunEnv();

  int32_t key() const override;

  /// Lets activations work in place: the layer before writes straight into the activation's output,
  /// where nobody else reads the tensor between them. That layer may then merge the activation.
  bool rewriteGraph(Net* net) override;
};

}  // namespace TavroRTC::FDModule::x86
