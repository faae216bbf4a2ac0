#include "engine/core/shape_layers.h"

#include <algorithm>

#include "engine/weight_packing.h"

namespace TavroRTC::FDModule::core {

// --- Concat ---

Concat::Concat(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/) : Layer(row) {
  connectManyToOne(row, tensors);
}

bool Concat::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  int64_t channels = 0;
  for (const Tensor* input : inputs)
    channels += input->c;
  if (channels < 0 || channels > INT32_MAX)
    return false;
  outputs[0]->takeShapeOf(*inputs[0]);
  outputs[0]->c = static_cast<int32_t>(channels);
  return true;
}

// --- Reshape ---

Reshape::Reshape(const LayerRow& row, TensorMap& tensors, TensorMap& /*weights*/) : Layer(row) {
  std::copy_n(row.ints, 4, target);
  connectOneToOne(row, tensors);
}

void Reshape::shapeOutput() {
  Tensor& output = *outputs[0];
  output.n = target[0];
  output.h = target[1];
  output.w = target[2];
  output.c = target[3];
  output.layout = layout::channelsLast;
  output.elementCount = 0;  // of a storage that was repacked before
}

bool Reshape::reshape(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  int32_t* open = nullptr;
  uint64_t product = 1;
  for (int32_t& extent : target) {
    if (extent >= 1) {
      product *= static_cast<uint64_t>(extent);
      if (product > INT32_MAX)
        return false;
    } else if (open == nullptr) {
      open = &extent;
    } else {
      return false;
    }
  }
  if (open != nullptr) {
    const uint64_t rest = inputs[0]->count() / product;
    if (rest > INT32_MAX)
      return false;
    *open = static_cast<int32_t>(rest);
  }
  shapeOutput();
  return true;
}

// The borrowing is renewed on every run, so that it still holds if the input's buffer has changed.
bool Reshape::forward(RunEnv* /*env*/) {
  if (!isConnected())
    return false;
  Tensor& input = *inputs[0];
  Tensor& output = *outputs[0];
  // More elements than the input has would let readers run past the borrowed buffer, and targets
  // that couldn't be worked out have none.
  const auto count =
      packedElementCount({target[0], target[1], target[2], target[3]}, layout::channelsLast);
  if (&input == &output || !count || *count == 0 || *count > input.count() ||
      !input.storageFits() || !input.halfStorageFits() ||
      (input.floatData == nullptr && input.halfData == nullptr))
    return false;
  shapeOutput();
  return output.share(input);
}

}  // namespace TavroRTC::FDModule::core
