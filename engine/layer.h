#pragma once

// Layer: the base of every operator. A layer is made from a row of the layer table, which also
// connects it with its tensors; `reshape` derives the output's shape once, `forward` computes the
// output on every run. Layers point to tensors that the Net owns.
//
// The classes come in storeys, one namespace each: core:: has parameters and shape inference,
// simd:: the forward pass on 128-bit vectors, x86:: the 256-bit kernels that come before it, ref::
// plain code.

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "engine/model/model_tables.h"
#include "engine/tensor.h"

namespace TavroRTC::FDModule {

namespace core {
class RunEnv;
}

/// The constant that stands in for the bias of a convolution that has none: 1024 zeros.
inline constexpr const char* zeroTensorName = "__dummy_zero_tensor__";

/// Tensors by name. Elements keep their address for life, so layers may point to them.
using TensorMap = std::map<std::string, Tensor>;

class Layer {
 public:
  virtual ~Layer() = default;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  /// True if an output value depends on the input values of its own pixel alone.
  virtual bool isPointwise() const { return false; }
  /// True if the outputs are the inputs' memory under another shape.
  virtual bool lendsInputs() const { return false; }
  /// Computes the outputs. False if it can't, with the outputs as they were.
  virtual bool forward(core::RunEnv* env) = 0;
  /// Sets the output's shape from the inputs' shapes. False if they don't fit the parameters.
  virtual bool reshape(core::RunEnv* env) = 0;
  /// The parameters in short, for the labels of diagnostics.
  virtual std::string describe() const { return {}; }
  /// The kernel that forward runs at the present sizes; empty if there is no choice of kernels.
  virtual std::string describeKernel(const core::RunEnv& /*env*/) const { return {}; }
  /// Waits for the work that forward has queued, in an environment that queues.
  virtual void sync() {}
  /// One-time preparation after the graph is complete.
  virtual bool prepare(core::RunEnv* /*env*/) { return true; }

  std::vector<Layer*> successors;  ///< activations that may be merged into this layer's pass
  bool fused = false;              ///< the layer before has done this layer's work
  bool skip = false;               ///< left out of every run
  uint64_t cost = 0;               ///< operations of one forward pass, set by reshape
  std::string type;
  std::string name = "Unknown";
  std::vector<Tensor*> inputs;
  std::vector<Tensor*> outputs;
  float rangeMin = std::numeric_limits<float>::max();  ///< of the output, if tracked
  float rangeMax = std::numeric_limits<float>::min();  ///< meant: the smallest positive number

 protected:
  explicit Layer(const LayerRow& row) : type(row.type), name(row.name) {}

  /// Appends the named tensors to `inputs`, made if they don't exist yet, and enters this layer as
  /// their consumer.
  void connectInputs(std::span<const char* const> names, TensorMap& tensors);
  /// Appends the named tensor to `outputs` and enters this layer as its producer.
  void connectOutput(const char* tensorName, TensorMap& tensors);
  /// One input and one output: the first two names. With fewer nothing is connected.
  void connectOneToOne(const LayerRow& row, TensorMap& tensors);
  /// All names but the last are inputs, the last is the output.
  void connectManyToOne(const LayerRow& row, TensorMap& tensors);
  /// True if there are at least `inputCount` inputs and an output to work on.
  bool isConnected(size_t inputCount = 1) const {
    return inputs.size() >= inputCount && !outputs.empty();
  }
};

/// The tensor names of a row's `io`.
std::span<const char* const> ioNames(const LayerRow& row);

/// The constants that a row names: those up to the first name that isn't there.
std::vector<Tensor*> findWeights(const LayerRow& row, TensorMap& weights);

/// The tensor of that name, made if it doesn't exist yet.
Tensor* obtainTensor(const char* name, TensorMap& tensors);

// The registry of layer creators: eight maps, one for each key of a run environment, from a type
// string to the function that makes a layer of that type. It is filled while the module is loaded
// and only read after that. One key is in use; the others are for environments to come.

inline constexpr int32_t environmentKeys = 8;

using LayerCreator = Layer* (*)(const LayerRow& row, TensorMap& tensors, TensorMap& weights);

/// Records the creator of a type. A second one replaces the first, with a message on the standard
/// output. A key outside 0 to 7 is ignored.
void registerLayer(int32_t key, const std::string& type, LayerCreator creator);

/// Makes the layer of a row, owned by the caller, or returns null with a message on the standard
/// output if nobody has registered its type under this key.
Layer* createLayer(int32_t key, const LayerRow& row, TensorMap& tensors, TensorMap& weights);

/// The creator of any class with the usual constructor.
template <typename LayerClass>
Layer* makeLayer(const LayerRow& row, TensorMap& tensors, TensorMap& weights) {
  return new LayerClass(row, tensors, weights);
}

}  // namespace TavroRTC::FDModule
