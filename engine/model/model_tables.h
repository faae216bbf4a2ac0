#pragma once

// The embedded model: one network, compiled in as two constant tables and one constant block of
// weights (weights.bin, raw little-endian float32). The tensor table names every constant tensor
// and points into the block; the layer table lists the layers in the order in which they run, each
// with its type, its numeric parameters and the names of the tensors that it reads and writes. A
// Net is built by walking both; they are only ever borrowed from.
//
// The network is a single-shot face detector: `input`, one 192x192 picture of three channels,
// becomes `scores` (1x1x2088x2: two class probabilities for each prior box) and `Reshape_0`
// (1x1x2088x4: four box offsets).

#include <cstddef>
#include <cstdint>
#include <span>

namespace TavroRTC::FDModule {

/// The number format of a tensor row's data.
enum class DataType : int32_t { float32 = 0, float16 = 1, bytes = 2 };

struct TensorRow {
  const char* name = nullptr;
  int32_t dims[4] = {};  ///< n, h, w, c
  int32_t layout = 0;    ///< layout code of the data (weight_packing.h)
  DataType dataType = DataType::float32;
  const void* data = nullptr;  ///< first element, at a 128-byte boundary
};

struct LayerRow {
  const char* name = nullptr;
  const char* type = nullptr;   ///< key in the layer registry
  int32_t ints[16] = {};        ///< parameters; what they mean depends on the type
  float floats[16] = {};        ///< likewise
  const char* io[8] = {};       ///< inputs in order, then the output; ends at null or ""
  const char* weights[8] = {};  ///< names of tensor rows; ends at null or ""
};

/// Constant tensors, in byte-wise ascending order of their names.
std::span<const TensorRow> modelTensors();

/// Layers, in order of execution.
std::span<const LayerRow> modelLayers();

/// The tensors that the rest of the program deals with by name.
inline constexpr const char* modelInput = "input";
inline constexpr const char* modelScores = "scores";
inline constexpr const char* modelBoxes = "Reshape_0";

/// Every tensor of weights.bin begins at a multiple of this, and so does the block itself.
inline constexpr size_t weightAlignment = 128;
inline constexpr size_t weightBlockSize = 391296;

}  // namespace TavroRTC::FDModule

/// The bytes of weights.bin, in read-only memory (weights.S).
extern "C" const unsigned char tavroModelWeights[TavroRTC::FDModule::weightBlockSize];
