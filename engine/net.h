#pragma once

// Net: the running form of a model. It owns the run environment, every tensor and every layer. It
// is built from the rows of the two model tables, shaped once by warmup(), and then run() passes
// the layers in the order of the table, once for each picture.
//
//   constants --addConstants--> weights --+
//                                         +--addLayers--> layers --warmup--> shapes --run-->
//                                         outputs
//   input shape and data --> tensors -----+

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "engine/layer.h"
#include "engine/run_env.h"

namespace TavroRTC::FDModule {

/// What a layer's label in the diagnostics is made of.
enum LabelPart : uint32_t { labelName = 1, labelType = 2, labelParameters = 4, labelKernel = 8 };

class Net {
 public:
  /// Takes ownership of `environment`.
  explicit Net(core::RunEnv* environment);
  virtual ~Net();
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  /// One pass through the layers. A layer that fails doesn't stop it; true if none failed.
  virtual bool run();
  /// The first-time work: brings the constants to the environment's precision and infers all
  /// shapes. Later calls do nothing and return true. True if every layer could be shaped.
  virtual bool warmup();
  /// Deletes all layers and tensors.
  virtual bool clear();

  /// The preparation step of the environment and of the layers; false if the environment has none.
  bool init(core::RunEnv* environment);

  /// Makes a constant tensor for each row; the rows' data is borrowed and must stay.
  void addConstants(std::span<const TensorRow> rows);
  /// Makes the layer of each row; a row without an implementation is left out, with a message.
  void addLayers(std::span<const LayerRow> rows);
  void addInput(const std::string& tensorName);
  void addOutput(const std::string& tensorName);
  /// The activation of that name, or null.
  Tensor* findTensor(const std::string& tensorName);

  bool timeLayers = false;   ///< print the time of each layer
  bool trackRanges = false;  ///< record and print the value range of each layer's first output
  bool dumpOutputs = false;  ///< print the outputs of the layers in dumpLayers
  bool warmedUp = false;
  uint64_t totalCost = 0;  ///< sum of the layers' costs, from warmup on
  core::RunEnv* env = nullptr;
  uint32_t labelParts = labelName | labelType | labelParameters;
  int32_t dumpRowBegin = 0;  ///< rows that a dump prints
  int32_t dumpRowEnd = 1;
  std::vector<std::string> dumpLayers;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  std::vector<Layer*> layers;  ///< owned, in order of execution
  TensorMap tensors;           ///< the activations
  TensorMap weights;           ///< the constants

 private:
  void convertConstants();
  void reserveActivations();
  std::string label(const Layer& layer) const;
  void reportRange(Layer& layer, const std::string& layerLabel) const;
  void dump(Layer& layer, const std::string& layerLabel) const;
};

}  // namespace TavroRTC::FDModule
